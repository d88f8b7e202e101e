#include "mosquitto_pub_sub.hpp"

#include <mqtt_protocol.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

#include "broker_relay.hpp"
#include "broker_tls.hpp"
#include "csc_logging/csc_logging.hpp"

namespace vi_connector {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

constexpr int kSubscribeQos = 1;
// Pushes are live events: a stored (retained) message must never start an update.
constexpr int kSubscribeOptions = MQTT_SUB_OPT_SEND_RETAIN_NEVER;
// SUBACK and PUBACK reason codes from 0x80 on are refusals.
constexpr int kFirstFailureReason = 0x80;
// How long a DISCONNECT may take to leave once the session is asked to stop.
constexpr auto kDisconnectGrace = std::chrono::seconds(2);
// TCP connect and TLS handshake with the broker.
constexpr int kBrokerConnectTimeoutMs = 10000;
// Push messages carry no payload we use; anything larger is hostile. The
// packet limit told to the broker leaves room for the topic and properties.
constexpr std::uint32_t kMaxPayloadBytes = 64 * 1024;
constexpr std::uint32_t kMaxPacketBytes = MqttPacketGate::kMaxPacketBytes;

void InitialiseLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

// libmosquitto reports socket errors as MOSQ_ERR_ERRNO with errno set.
std::string Describe(int rc) {
    if (rc == MOSQ_ERR_ERRNO) {
        return std::strerror(errno);
    }
    return mosquitto_strerror(rc);
}

}  // namespace

MosquittoPubSub::MosquittoPubSub() = default;

MosquittoPubSub::~MosquittoPubSub() {
    {
        // Whoever registered the callback may be gone already; say nothing more.
        std::lock_guard<std::recursive_mutex> delivery(deliveryMutex_);
        std::lock_guard<std::mutex> lock(mutex_);
        callback_ = nullptr;
    }
    Disconnect();
    std::lock_guard<std::mutex> control(controlMutex_);
    if (thread_.joinable()) {
        thread_.join();
    }
    DestroyClient();
}

std::uint32_t MosquittoPubSub::Connect(const MqttSettings& settings, VIPubSubCallbackIf* callback) {
    if (OnNetworkThread()) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (callback != nullptr) {
            callback_ = callback;
        }
        if (sessionActive_) {
            return linkUp_ ? pubsub_status::kAlreadyOrQueued : pubsub_status::kInProgress;
        }
        // The session is ending underneath this callback; it cannot restart itself.
        CSCLogging::Error("VIConnector: PubSubConnect from a callback of a session being stopped");
        return pubsub_status::kFailed;
    }

    std::lock_guard<std::mutex> control(controlMutex_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (callback != nullptr) {
            callback_ = callback;
        }
        if (sessionActive_) {
            return linkUp_ ? pubsub_status::kAlreadyOrQueued : pubsub_status::kInProgress;
        }
    }
    // A session stopped from its own callback leaves its thread to be joined here.
    if (thread_.joinable()) {
        thread_.join();
    }
    DestroyClient();

    settings_ = settings;
    tls_.reset();
    if (!settings_.tlsCaFile.empty() || !settings_.tlsCertFile.empty() ||
        !settings_.tlsKeyFile.empty()) {
        std::string error;
        tls_ = MakeBrokerTlsContext(settings_, error);
        if (!tls_) {
            CSCLogging::Error("VIConnector: MQTT TLS set-up failed: " + error);
            return pubsub_status::kFailed;
        }
    }
    const bool v5 = settings_.protocol == MqttSettings::Protocol::kV5 ||
                    (settings_.protocol == MqttSettings::Protocol::kAuto && !brokerLacksV5_);
    protocol_ = v5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311;
    policy_.emplace(settings_.reconnectDelayMinMs, settings_.reconnectDelayMaxMs);
    if (!CreateClient()) {
        return pubsub_status::kFailed;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sessionActive_ = true;
        stopRequested_ = false;
        linkUp_ = false;
    }
    thread_ = std::thread([this] { Run(); });
    return pubsub_status::kInProgress;
}

std::uint32_t MosquittoPubSub::Disconnect() {
    const auto requestStop = [this] {
        std::lock_guard<std::mutex> lock(mutex_);
        const bool wasActive = sessionActive_;
        sessionActive_ = false;
        stopRequested_ = true;
        if (client_ != nullptr) {
            mosquitto_disconnect(client_);  // also wakes the network thread
        }
        wake_.notify_all();
        return wasActive;
    };

    // The callback's owner may destroy it once this returns: the session's
    // last notifications reach it before, none after.
    const auto forgetCallback = [this] {
        std::lock_guard<std::recursive_mutex> delivery(deliveryMutex_);
        std::lock_guard<std::mutex> lock(mutex_);
        callback_ = nullptr;
    };

    if (OnNetworkThread()) {
        // Cannot join itself: the thread ends after this callback returns.
        const bool wasActive = requestStop();
        forgetCallback();
        return wasActive ? pubsub_status::kOk : pubsub_status::kFailed;
    }
    std::lock_guard<std::mutex> control(controlMutex_);
    const bool wasActive = requestStop();
    if (thread_.joinable()) {
        thread_.join();
    }
    forgetCallback();
    DestroyClient();
    return wasActive ? pubsub_status::kOk : pubsub_status::kFailed;
}

SubscribeResult MosquittoPubSub::Subscribe(const std::string& topic, bool queueWhileDown) {
    if (mosquitto_sub_topic_check(topic.c_str()) != MOSQ_ERR_SUCCESS) {
        CSCLogging::Error("VIConnector: cannot subscribe to '" + topic +
                          "': not a valid MQTT topic filter");
        return {pubsub_status::kFailed, 0};
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (!sessionActive_) {
        CSCLogging::Error("VIConnector: cannot subscribe to '" + topic +
                          "': PubSubConnect has not been called");
        return {pubsub_status::kFailed, 0};
    }
    if (!linkUp_) {
        if (!queueWhileDown) {
            CSCLogging::Warning("VIConnector: cannot subscribe to '" + topic +
                                "' now: the MQTT link is down");
            return {pubsub_status::kFailed, 0};
        }
        queuedSubscriptions_.push_back(topic);
        return {pubsub_status::kAlreadyOrQueued, 0};
    }
    int mid = 0;
    const int rc = SendSubscribe(topic, mid);
    if (rc != MOSQ_ERR_SUCCESS) {
        CSCLogging::Error("VIConnector: cannot subscribe to '" + topic + "': " + Describe(rc));
        return {pubsub_status::kFailed, 0};
    }
    subscriptionsInFlight_[mid] = topic;
    return {pubsub_status::kOk, static_cast<std::uint16_t>(mid)};
}

std::uint32_t MosquittoPubSub::Publish(const std::string& topic,
                                       const std::vector<std::uint8_t>& payload, unsigned int qos,
                                       unsigned int messageExpirySeconds,
                                       PublishPayloadFormat format, const std::string& contentType,
                                       bool retain) {
    if (qos > 2 || payload.size() > static_cast<std::size_t>(INT_MAX)) {
        CSCLogging::Error(CSCLogEntry()
                          << "VIConnector: cannot publish to '" << topic << "': QoS " << qos
                          << " or payload size " << payload.size() << " out of range");
        return pubsub_status::kFailed;
    }
    mosquitto_property* properties = nullptr;
    if (messageExpirySeconds > 0) {
        mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                     messageExpirySeconds);
    }
    if (format == PublishPayloadFormat::kUtf8) {
        mosquitto_property_add_byte(&properties, MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1);
    }
    if (!contentType.empty()) {
        mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, contentType.c_str());
    }

    std::lock_guard<std::mutex> lock(mutex_);
    int rc = MOSQ_ERR_NO_CONN;
    int mid = 0;
    if (sessionActive_ && linkUp_) {
        rc = mosquitto_publish_v5(client_, &mid, topic.c_str(), static_cast<int>(payload.size()),
                                  payload.data(), static_cast<int>(qos), retain, properties);
    }
    mosquitto_property_free_all(&properties);
    if (rc != MOSQ_ERR_SUCCESS) {
        CSCLogging::Error("VIConnector: cannot publish to '" + topic + "': " +
                          (rc == MOSQ_ERR_NO_CONN ? "the MQTT link is down" : Describe(rc)));
        return pubsub_status::kFailed;
    }
    publishesInFlight_[mid] = {topic, static_cast<int>(qos)};
    return pubsub_status::kOk;
}

int MosquittoPubSub::SendSubscribe(const std::string& topic, int& mid) {
    // libmosquitto leaves the options out of an MQTT 3.1.1 SUBSCRIBE.
    return mosquitto_subscribe_v5(client_, &mid, topic.c_str(), kSubscribeQos, kSubscribeOptions,
                                  nullptr);
}

bool MosquittoPubSub::CreateClient() {
    InitialiseLibrary();
    // Not a clean start: the broker keeps the session, and the pushes sent
    // while we are away, for the next connection with the same id.
    mosquitto* client = mosquitto_new(settings_.clientId.c_str(), false, this);
    if (client == nullptr) {
        CSCLogging::Error(std::string("VIConnector: cannot create an MQTT client: ") +
                          std::strerror(errno));
        return false;
    }
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, protocol_);
    mosquitto_threaded_set(client, true);
    mosquitto_connect_v5_callback_set(client, &MosquittoPubSub::OnConnect);
    mosquitto_message_v5_callback_set(client, &MosquittoPubSub::OnMessage);
    mosquitto_subscribe_v5_callback_set(client, &MosquittoPubSub::OnSubscribe);
    mosquitto_publish_v5_callback_set(client, &MosquittoPubSub::OnPublish);
    if (protocol_ == MQTT_PROTOCOL_V5 && !SetConnectProperties(client)) {
        mosquitto_destroy(client);
        return false;
    }

    std::lock_guard<std::mutex> lock(mutex_);
    client_ = client;
    return true;
}

bool MosquittoPubSub::SetConnectProperties(mosquitto* client) {
    // A broker that obeys the maximum packet size drops larger messages for us
    // instead of sending them. libmosquitto 2.0 takes CONNECT properties only
    // through its blocking connect, which keeps them for every later
    // (asynchronous) connect; an invalid port makes it store them and return
    // before connecting.
    mosquitto_property* properties = nullptr;
    int rc =
        mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, kMaxPacketBytes);
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                          settings_.sessionExpirySeconds);
    }
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_connect_bind_v5(client, "localhost", -1, settings_.keepAliveSeconds, nullptr,
                                       properties);
    }
    mosquitto_property_free_all(&properties);
    if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_INVAL) {
        CSCLogging::Error("VIConnector: cannot set the MQTT connect properties: " + Describe(rc));
        return false;
    }
    return true;
}

void MosquittoPubSub::DestroyClient() {
    mosquitto* client = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::swap(client, client_);
    }
    if (client != nullptr) {
        mosquitto_destroy(client);
    }
}

bool MosquittoPubSub::OnNetworkThread() const {
    return networkThreadId_.load() == std::this_thread::get_id();
}

bool MosquittoPubSub::StopRequested() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopRequested_;
}

std::string MosquittoPubSub::Broker() const {
    return settings_.host + ":" + std::to_string(settings_.port);
}

void MosquittoPubSub::Run() {
    networkThreadId_.store(std::this_thread::get_id());
    ReportState(VIPubSubCallbackIf::kDisconnected);
    while (!StopRequested()) {
        policy_->Attempt();
        const SessionEnd end = RunSession();
        const bool wasUp = HandleLinkDown(false);
        if (StopRequested()) {
            break;
        }
        if (fallBackToV311_) {
            // A new client: libmosquitto refuses to send the stored MQTT 5
            // connect properties with 3.1.1.
            fallBackToV311_ = false;
            DestroyClient();
            if (!CreateClient()) {
                break;
            }
            continue;
        }
        const auto down = policy_->LinkDown();
        ReportLinkDown(end, wasUp, down.report);
        if (!WaitBeforeReconnect(down.wait)) {
            break;
        }
    }
    HandleLinkDown(true);
    networkThreadId_.store(std::thread::id());
}

void MosquittoPubSub::ReportLinkDown(const SessionEnd& end, bool wasUp, bool report) const {
    const auto log = [report](const std::string& line) {
        report ? CSCLogging::Warning(line) : CSCLogging::Debug(line);
    };
    if (end.disconnect && end.disconnect->reason == MQTT_RC_SESSION_TAKEN_OVER) {
        const std::string line =
            "VIConnector: MQTT broker " + Broker() + " gave our session to another client " +
            "with the client id '" + settings_.clientId + "' (DISCONNECT 0x8E" +
            (end.disconnect->reasonString.empty() ? "" : ": " + end.disconnect->reasonString) +
            "): the id is likely used twice; each vehicle needs its own [mqtt] client_id "
            "or machine id";
        report ? CSCLogging::Error(line) : CSCLogging::Debug(line);
    } else if (end.disconnect) {
        char code[8];
        std::snprintf(code, sizeof(code), "0x%02X", static_cast<unsigned>(end.disconnect->reason));
        log("VIConnector: MQTT link to " + Broker() + " lost: the broker sent DISCONNECT " + code +
            " (" + mosquitto_reason_string(end.disconnect->reason) + ")" +
            (end.disconnect->reasonString.empty() ? "" : ": " + end.disconnect->reasonString));
    } else if (wasUp) {
        log("VIConnector: MQTT link to " + Broker() + " lost: " + end.failure);
    } else if (end.refusal) {
        log("VIConnector: MQTT broker " + Broker() +
            " refused the connection: " + mosquitto_reason_string(*end.refusal));
    } else if (report) {
        log("VIConnector: cannot connect to MQTT broker " + Broker() + ": " + end.failure +
            "; retrying");
    } else {
        log("VIConnector: MQTT broker " + Broker() + " still unreachable: " + end.failure);
    }
}

MosquittoPubSub::SessionEnd MosquittoPubSub::RunSession() {
    connackRefusal_.reset();
    // libmosquitto talks to the relay, which owns the broker's socket and
    // hands it no packet larger than the bound.
    SessionEnd end;
    const auto relay = BrokerRelay::Listen(end.failure);
    if (!relay) {
        return end;
    }
    const int connected = mosquitto_connect_async(client_, relay->SocketPath().c_str(), 0,
                                                  settings_.keepAliveSeconds);
    if (connected != MOSQ_ERR_SUCCESS) {
        end.failure = Describe(connected);
        return end;
    }
    if (!relay->Start(settings_.host, settings_.port, tls_, kBrokerConnectTimeoutMs, end.failure)) {
        return end;
    }
    {
        // A Disconnect that came before the connect could not reach this socket.
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopRequested_) {
            mosquitto_disconnect(client_);
        }
    }
    // libmosquitto shortens the wait itself when a keep-alive ping is due.
    const int timeoutMs = settings_.keepAliveSeconds * 1000;
    std::chrono::steady_clock::time_point giveUpAt{};
    std::string failure;
    while (failure.empty()) {
        const int rc = mosquitto_loop(client_, timeoutMs, 1);
        HandleEvents();
        if (rc != MOSQ_ERR_SUCCESS) {
            failure = Describe(rc);
            break;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (!stopRequested_) {
            continue;
        }
        // Stopping: let the DISCONNECT leave over a working link, but do not
        // wait for a connection attempt that may never complete.
        const auto now = std::chrono::steady_clock::now();
        if (giveUpAt == std::chrono::steady_clock::time_point{}) {
            giveUpAt = now + kDisconnectGrace;
        }
        if (!linkUp_ || now >= giveUpAt) {
            failure = "disconnected";
        }
    }
    relay->Stop();
    // The relay knows why better than libmosquitto, which only saw its socket close.
    end.failure = relay->Failure().empty() ? failure : relay->Failure();
    end.refusal = connackRefusal_;
    end.disconnect = relay->BrokerDisconnect();
    return end;
}

void MosquittoPubSub::AddEvent(Event event) {
    std::lock_guard<std::mutex> lock(eventsMutex_);
    events_.push_back(std::move(event));
}

void MosquittoPubSub::OnConnect(mosquitto* /*client*/, void* self, int reason, int /*flags*/,
                                const mosquitto_property* /*properties*/) {
    Event event(Event::Kind::kConnack);
    event.code = reason;
    static_cast<MosquittoPubSub*>(self)->AddEvent(std::move(event));
}

void MosquittoPubSub::OnMessage(mosquitto* /*client*/, void* self, const mosquitto_message* message,
                                const mosquitto_property* /*properties*/) {
    // Sent because it was stored, not because it happened now (libmosquitto
    // has acknowledged it already).
    if (message->retain) {
        CSCLogging::Debug(CSCLogEntry()
                          << "VIConnector: dropped a retained message on '"
                          << (message->topic ? message->topic : "") << "': pushes are live events");
        return;
    }
    // A broker that ignores our maximum packet size still gets no copy made.
    if (message->payloadlen > static_cast<int>(kMaxPayloadBytes)) {
        CSCLogging::Warning(CSCLogEntry()
                            << "VIConnector: dropped a " << message->payloadlen
                            << " byte message on '" << (message->topic ? message->topic : "")
                            << "': larger than " << kMaxPayloadBytes << " bytes");
        return;
    }
    Event event(Event::Kind::kMessage);
    event.mid = message->mid;
    event.topic = message->topic != nullptr ? message->topic : "";
    const auto* bytes = static_cast<const std::uint8_t*>(message->payload);
    if (bytes != nullptr && message->payloadlen > 0) {
        event.payload.assign(bytes, bytes + message->payloadlen);
    }
    static_cast<MosquittoPubSub*>(self)->AddEvent(std::move(event));
}

void MosquittoPubSub::OnSubscribe(mosquitto* /*client*/, void* self, int mid, int count,
                                  const int* granted, const mosquitto_property* /*properties*/) {
    Event event(Event::Kind::kSuback);
    event.mid = mid;
    // One filter per SUBSCRIBE; a missing reason counts as a refusal.
    event.code = (count > 0 && granted != nullptr) ? granted[0] : kFirstFailureReason;
    static_cast<MosquittoPubSub*>(self)->AddEvent(std::move(event));
}

void MosquittoPubSub::OnPublish(mosquitto* /*client*/, void* self, int mid, int reason,
                                const mosquitto_property* /*properties*/) {
    Event event(Event::Kind::kPublished);
    event.mid = mid;
    event.code = reason;
    static_cast<MosquittoPubSub*>(self)->AddEvent(std::move(event));
}

void MosquittoPubSub::HandleEvents() {
    std::vector<Event> events;
    {
        std::lock_guard<std::mutex> lock(eventsMutex_);
        events.swap(events_);
    }
    for (auto& event : events) {
        const auto callback = Callback();
        const auto requestId = static_cast<std::uint16_t>(event.mid);
        switch (event.kind) {
            case Event::Kind::kConnack:
                HandleConnack(event.code);
                break;
            case Event::Kind::kMessage:
                if (callback) {
                    callback->VIPublishReceived(event.topic, event.payload,
                                                static_cast<std::uint32_t>(event.mid));
                }
                break;
            case Event::Kind::kSuback: {
                std::string topic;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    auto found = subscriptionsInFlight_.find(event.mid);
                    if (found != subscriptionsInFlight_.end()) {
                        topic = std::move(found->second);
                        subscriptionsInFlight_.erase(found);
                    }
                }
                const auto status = event.code >= kFirstFailureReason
                                        ? VIPubSubCallbackIf::kRefused
                                        : VIPubSubCallbackIf::kGranted;
                if (status == VIPubSubCallbackIf::kRefused) {
                    CSCLogging::Warning(CSCLogEntry()
                                        << "VIConnector: broker refused the "
                                           "subscription to '"
                                        << topic << "': " << mosquitto_reason_string(event.code));
                }
                if (callback) {
                    callback->VISubscribeAcknowledgeReceived(topic, status, requestId);
                }
                break;
            }
            case Event::Kind::kPublished: {
                std::string topic;
                {
                    std::lock_guard<std::mutex> lock(mutex_);
                    auto found = publishesInFlight_.find(event.mid);
                    if (found == publishesInFlight_.end()) {
                        break;  // already reported as failed when the link went down
                    }
                    topic = std::move(found->second.topic);
                    publishesInFlight_.erase(found);
                }
                if (!callback) {
                    break;
                }
                if (event.code >= kFirstFailureReason) {
                    callback->VIPublishFailed(topic, requestId);
                } else {
                    callback->VIPublishAcknowledgeReceived(topic, requestId);
                }
                break;
            }
        }
    }
}

void MosquittoPubSub::HandleConnack(int reason) {
    if (reason == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION &&
        settings_.protocol == MqttSettings::Protocol::kAuto && protocol_ == MQTT_PROTOCOL_V5) {
        CSCLogging::Info("VIConnector: MQTT broker " + Broker() +
                         " does not speak MQTT 5; using MQTT 3.1.1 until restart");
        brokerLacksV5_ = true;
        fallBackToV311_ = true;
        protocol_ = MQTT_PROTOCOL_V311;
        return;
    }
    if (reason != 0) {
        connackRefusal_ = reason;  // reported when the attempt is over
        return;
    }
    std::vector<std::string> unsent;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        linkUp_ = true;
        while (!queuedSubscriptions_.empty()) {
            std::string topic = std::move(queuedSubscriptions_.front());
            queuedSubscriptions_.pop_front();
            int mid = 0;
            if (SendSubscribe(topic, mid) == MOSQ_ERR_SUCCESS) {
                subscriptionsInFlight_[mid] = std::move(topic);
            } else {
                unsent.push_back(std::move(topic));
            }
        }
    }
    const std::string line = "VIConnector: MQTT connected to " + Broker() + " as '" +
                             settings_.clientId + "' (MQTT " +
                             (protocol_ == MQTT_PROTOCOL_V5 ? "5" : "3.1.1") + ")";
    policy_->Up() ? CSCLogging::Info(line) : CSCLogging::Debug(line);
    ReportState(VIPubSubCallbackIf::kConnected);
    if (const auto callback = Callback()) {
        for (const auto& topic : unsent) {
            callback->VISubscribeFailed(topic, 0);
        }
    }
}

bool MosquittoPubSub::HandleLinkDown(bool sessionEnds) {
    bool wasUp = false;
    bool asked = false;
    std::map<int, std::string> subscriptions;
    std::deque<std::string> queued;
    std::map<int, Outgoing> publishes;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        wasUp = linkUp_;
        asked = stopRequested_;
        linkUp_ = false;
        // Brokers do not answer a SUBSCRIBE sent over a dead link; QoS 0
        // messages not yet written are gone. Higher QoS messages are sent
        // again after the reconnection unless the session ends.
        subscriptions.swap(subscriptionsInFlight_);
        for (auto it = publishesInFlight_.begin(); it != publishesInFlight_.end();) {
            if (sessionEnds || it->second.qos == 0) {
                publishes.insert(*it);
                it = publishesInFlight_.erase(it);
            } else {
                ++it;
            }
        }
        if (sessionEnds) {
            queued.swap(queuedSubscriptions_);
        }
    }
    // An end the owner asked for is not news to it: it may be shutting down,
    // and whatever it would log about it would come after its last line.
    if (asked) {
        return wasUp;
    }
    if (wasUp) {
        ReportState(VIPubSubCallbackIf::kDisconnected);
    }
    const auto callback = Callback();
    if (!callback) {
        return wasUp;
    }
    for (const auto& [mid, topic] : subscriptions) {
        callback->VISubscribeFailed(topic, static_cast<std::uint16_t>(mid));
    }
    for (const auto& topic : queued) {
        callback->VISubscribeFailed(topic, 0);
    }
    for (const auto& [mid, outgoing] : publishes) {
        callback->VIPublishFailed(outgoing.topic, static_cast<std::uint16_t>(mid));
    }
    return wasUp;
}

bool MosquittoPubSub::WaitBeforeReconnect(std::chrono::milliseconds delay) {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait_for(lock, delay, [this] { return stopRequested_; });
    return !stopRequested_;
}

void MosquittoPubSub::ReportState(VIPubSubCallbackIf::PubSubConnectionState state) {
    if (const auto callback = Callback()) {
        callback->VIPubSubConnectionState(state);
    }
}

MosquittoPubSub::Notifier::Notifier(std::recursive_mutex& delivery, std::mutex& guard,
                                    VIPubSubCallbackIf* const& callback)
    : delivery_(delivery) {
    std::lock_guard<std::mutex> lock(guard);
    callback_ = callback;
}

MosquittoPubSub::Notifier MosquittoPubSub::Callback() const {
    return Notifier(deliveryMutex_, mutex_, callback_);
}

}  // namespace vi_connector
