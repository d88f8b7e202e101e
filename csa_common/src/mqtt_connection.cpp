#include "csa_common/mqtt_connection.hpp"

#include <cstdlib>
#include <utility>

#include "csc_logging/csc_logging.hpp"

namespace csa_common {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;
namespace pubsub_status = vi_connector::pubsub_status;

// Connector status codes are logged as signed numbers (enumerations already are).
std::int32_t Signed(std::uint32_t value) {
    return static_cast<std::int32_t>(value);
}

}  // namespace

MqttConnection::MqttConnection(std::shared_ptr<vi_connector::VIConnector> connector,
                               MqttConnectionCbIf* callback)
    : viConnector_(std::move(connector)), callback_(callback) {}

bool MqttConnection::Connect() {
    const std::uint32_t result = viConnector_->PubSubConnect(this);
    // "Under way" counts: the connection completes in the background.
    const bool connected = result == pubsub_status::kOk || result == pubsub_status::kInProgress ||
                           result == pubsub_status::kAlreadyOrQueued;
    if (connected) {
        CSCLogging::Info(CSCLogEntry()
                         << "MqttConnection: Connected to MQTT-CDP, result=" << Signed(result));
    } else {
        CSCLogging::Error(CSCLogEntry() << "MqttConnection: Failed to connect to MQTT-CDP, result="
                                        << Signed(result));
    }
    return !connected;
}

std::uint32_t MqttConnection::Disconnect() {
    return viConnector_->PubSubDisconnect();
}

bool MqttConnection::Subscribe(const std::string& topic) {
    const vi_connector::SubscribeResult result = viConnector_->PubSubSubscribe(topic, true);
    // Unlike Connect, "under way" is no success here.
    if (result.status == pubsub_status::kOk || result.status == pubsub_status::kAlreadyOrQueued) {
        CSCLogging::Info(CSCLogEntry() << "MqttConnection: Subscribed to topic " << topic
                                       << ", status=" << Signed(result.status));
        return false;
    }
    CSCLogging::Error(CSCLogEntry() << "MqttConnection: Failed to subscribe to topic " << topic
                                    << ", status=" << Signed(result.status)
                                    << ", Request ID:" << result.requestId);
    return true;
}

bool MqttConnection::CheckReceivedUpdate() {
    return receivedCount_.load() != 0;
}

std::string MqttConnection::GetReceivedMessage() {
    std::lock_guard<std::mutex> lock(receivedMessagesMutex_);
    if (receivedMessages_.empty()) {
        // Callers ask CheckReceivedUpdate first; anything else is a programming error.
        CSCLogging::Error("MqttConnection: GetReceivedMessage called with no message stored");
        std::abort();
    }
    std::string message = receivedMessages_.front();
    receivedMessages_.erase(receivedMessages_.begin());
    receivedCount_.store(receivedMessages_.size());
    return message;
}

bool MqttConnection::Publish(const std::string& topic, const std::string& message, bool flag,
                             unsigned int value1, unsigned int value2, std::string text) {
    const std::vector<std::uint8_t> payload(message.begin(), message.end());
    const std::uint32_t result =
        viConnector_->PubSubPublish(topic, payload, value1, value2,
                                    static_cast<vi_connector::PublishPayloadFormat>(0), text, flag);
    return result != pubsub_status::kOk;
}

void MqttConnection::VIPubSubConnectionState(PubSubConnectionState state) {
    CSCLogging::Debug(CSCLogEntry() << "MqttConnection: Connection state has changed from "
                                    << connectionState_ << " to " << state);
    // Only losing and regaining the broker (1 -> 0) drops the broker's subscriptions.
    if (state == 0 && connectionState_ == 1 && callback_ != nullptr) {
        callback_->MQTTResubscribeCb();
    }
    connectionState_ = state;
}

void MqttConnection::VIPublishReceived(const std::string& topic,
                                       const std::vector<std::uint8_t>& payload,
                                       std::uint32_t messageId) {
    {
        std::lock_guard<std::mutex> lock(receivedMessagesMutex_);
        receivedMessages_.emplace_back(payload.begin(), payload.end());
        receivedCount_.store(receivedMessages_.size());
        CSCLogging::Debug(CSCLogEntry() << "MqttConnection: Message received for topic " << topic
                                        << ", message:" << receivedMessages_.back()
                                        << ", messageId: " << messageId);
    }
    // Outside the lock: the owner may read the store from inside the callback.
    if (callback_ != nullptr) {
        callback_->MQTTMessageReceivedCb();
    }
}

void MqttConnection::VIPublishAcknowledgeReceived(const std::string& topic,
                                                  std::uint16_t requestId) {
    CSCLogging::Debug(CSCLogEntry() << "MqttConnection: Publish acknowledged to topic " << topic
                                    << ", Request ID:" << requestId);
}

void MqttConnection::VISubscribeAcknowledgeReceived(const std::string& topic,
                                                    SubscriptionStatus status,
                                                    std::uint16_t requestId) {
    CSCLogging::Debug(CSCLogEntry() << "MqttConnection: Subscribe acknowledged to topic " << topic
                                    << ", status " << status << " Request ID:" << requestId);
    if (status == 1 && callback_ != nullptr) {
        callback_->MQTTSubscribeFailedCb();
    }
}

void MqttConnection::VIUnsubscribeAcknowledgeReceived(const std::string& topic,
                                                      std::uint16_t requestId) {
    CSCLogging::Debug(CSCLogEntry() << "MqttConnection: Unsubscribe acknowledged to topic " << topic
                                    << ", Request ID:" << requestId);
}

void MqttConnection::VIPublishFailed(const std::string& topic, std::uint16_t requestId) {
    CSCLogging::Error(CSCLogEntry() << "MqttConnection: Publish to topic " << topic
                                    << " failed, Request ID:" << requestId);
}

void MqttConnection::VISubscribeFailed(const std::string& topic, std::uint16_t requestId) {
    CSCLogging::Error(CSCLogEntry() << "MqttConnection: Subscribe to topic " << topic
                                    << " failed, Request ID:" << requestId);
    // The request never reached the broker: ask the owner to try again soon.
    if (callback_ != nullptr) {
        callback_->MQTTResubscribeCb();
    }
}

void MqttConnection::VIUnsubscribeFailed(const std::string& topic, std::uint16_t requestId) {
    CSCLogging::Error(CSCLogEntry() << "MqttConnection: Unsubscribe to topic " << topic
                                    << " failed, Request ID:" << requestId);
}

void MqttConnection::VIConnectorStatus(vi_connector::SessionStatus status) {
    CSCLogging::Debug(CSCLogEntry()
                      << "MqttConnection: VI-Connector status has changed to " << status);
}

}  // namespace csa_common
