#ifndef VI_CONNECTOR_VI_PUB_SUB_CALLBACK_IF_HPP
#define VI_CONNECTOR_VI_PUB_SUB_CALLBACK_IF_HPP

#include <cstdint>
#include <string>
#include <vector>

namespace vi_connector {

/// Notifications of the MQTT channel, delivered on a connector thread.
class VIPubSubCallbackIf {
public:
    /// 0 connected, 1 disconnected. Every (re)connection is reported as 1 then 0.
    enum PubSubConnectionState : std::int32_t { kConnected = 0, kDisconnected = 1 };
    /// 0 granted, 1 refused by the broker (SUBACK 0x80).
    enum SubscriptionStatus : std::int32_t { kGranted = 0, kRefused = 1 };

    virtual ~VIPubSubCallbackIf() = default;
    virtual void VIPubSubConnectionState(PubSubConnectionState state) = 0;
    virtual void VIPublishReceived(const std::string& topic,
                                   const std::vector<std::uint8_t>& payload,
                                   std::uint32_t messageId) = 0;
    virtual void VIPublishAcknowledgeReceived(const std::string& topic,
                                              std::uint16_t requestId) = 0;
    virtual void VISubscribeAcknowledgeReceived(const std::string& topic, SubscriptionStatus status,
                                                std::uint16_t requestId) = 0;
    virtual void VIUnsubscribeAcknowledgeReceived(const std::string& topic,
                                                  std::uint16_t requestId) = 0;
    virtual void VIPublishFailed(const std::string& topic, std::uint16_t requestId) = 0;
    virtual void VISubscribeFailed(const std::string& topic, std::uint16_t requestId) = 0;
    virtual void VIUnsubscribeFailed(const std::string& topic, std::uint16_t requestId) = 0;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_VI_PUB_SUB_CALLBACK_IF_HPP
