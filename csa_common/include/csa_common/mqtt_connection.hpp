#ifndef CSA_COMMON_MQTT_CONNECTION_HPP
#define CSA_COMMON_MQTT_CONNECTION_HPP

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "csa_common/mqtt_connection_cb_if.hpp"
#include "csa_common/mqtt_connection_if.hpp"
#include "vi_connector/vi_connector.hpp"
#include "vi_connector/vi_pub_sub_callback_if.hpp"
#include "vi_connector/vi_session_callback_if.hpp"

namespace csa_common {

/// A thin, thread-safe wrapper of the connector's pub/sub channel: received
/// messages go into a FIFO store (bytes unchanged), the connector's
/// notifications become the three owner callbacks. Knows nothing of topics or
/// payload meaning. No thread of its own; the connector calls in on its threads.
class MqttConnection : public MqttConnectionIf,
                       public vi_connector::VIPubSubCallbackIf,
                       public vi_connector::VISessionCallbackIf {
public:
    /// `callback` may be null; it is not owned.
    MqttConnection(std::shared_ptr<vi_connector::VIConnector> connector,
                   MqttConnectionCbIf* callback);
    /// Neither disconnects nor unsubscribes: the owner ends delivery with
    /// Disconnect() before releasing this object.
    ~MqttConnection() override = default;
    MqttConnection(const MqttConnection&) = delete;
    MqttConnection& operator=(const MqttConnection&) = delete;

    // MqttConnectionIf
    bool Subscribe(const std::string& topic) override;
    bool Connect() override;
    std::uint32_t Disconnect() override;
    bool CheckReceivedUpdate() override;
    std::string GetReceivedMessage() override;
    bool Publish(const std::string& topic, const std::string& message, bool flag,
                 unsigned int value1, unsigned int value2, std::string text) override;

    // vi_connector::VIPubSubCallbackIf
    void VIPubSubConnectionState(PubSubConnectionState state) override;
    void VIPublishReceived(const std::string& topic, const std::vector<std::uint8_t>& payload,
                           std::uint32_t messageId) override;
    void VIPublishAcknowledgeReceived(const std::string& topic, std::uint16_t requestId) override;
    void VISubscribeAcknowledgeReceived(const std::string& topic, SubscriptionStatus status,
                                        std::uint16_t requestId) override;
    void VIUnsubscribeAcknowledgeReceived(const std::string& topic,
                                          std::uint16_t requestId) override;
    void VIPublishFailed(const std::string& topic, std::uint16_t requestId) override;
    void VISubscribeFailed(const std::string& topic, std::uint16_t requestId) override;
    void VIUnsubscribeFailed(const std::string& topic, std::uint16_t requestId) override;

    // vi_connector::VISessionCallbackIf
    void VIConnectorStatus(vi_connector::SessionStatus status) override;

private:
    std::shared_ptr<vi_connector::VIConnector> viConnector_;
    MqttConnectionCbIf* callback_;
    // Written only from the connector's callback thread.
    PubSubConnectionState connectionState_ = static_cast<PubSubConnectionState>(0);
    std::mutex receivedMessagesMutex_;
    std::vector<std::string> receivedMessages_;  // FIFO: appended at the back, taken from the front
    // Mirrors receivedMessages_.size() so CheckReceivedUpdate can look without the lock.
    std::atomic<std::size_t> receivedCount_{0};
};

}  // namespace csa_common

#endif  // CSA_COMMON_MQTT_CONNECTION_HPP
