#ifndef VI_CONNECTOR_VI_CONNECTOR_HPP
#define VI_CONNECTOR_VI_CONNECTOR_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "vi_connector/vi_pub_sub_callback_if.hpp"
#include "vi_connector/vi_service_controller_callback_if.hpp"
#include "vi_connector/vi_session_callback_if.hpp"
#include "vi_connector/vi_types.hpp"

namespace vi_connector {

/// The vehicle's connectivity service: session, connection state, tokens and
/// invocation URLs, backend sockets and the MQTT channel.
class VIConnector {
public:
    explicit VIConnector(VISessionCallbackIf* sessionCallback,
                         VIPubSubCallbackIf* pubSubCallback = nullptr);
    virtual ~VIConnector();
    VIConnector(const VIConnector&) = delete;
    VIConnector& operator=(const VIConnector&) = delete;

    virtual void Start();
    virtual void Stop();
    virtual SessionStatus GetSessionStatus() const;

    virtual TokenResult GetToken(const std::string& transactionTypeId);
    virtual UrlResult GetInvocationUrl(const std::string& transactionTypeId);
    virtual unsigned int SubscribeTransactionTypeState(std::string transactionTypeId,
                                                       VIServiceControllerCallbackIf* callback,
                                                       unsigned int flags);
    virtual SocketResult SocketConnect(const std::string& transactionTypeId,
                                       const std::string& host, std::uint16_t port);

    virtual std::uint32_t PubSubConnect(VIPubSubCallbackIf* callback);
    /// Once it returns, no notification is under way (unless called from one
    /// of them) and none follows.
    virtual std::uint32_t PubSubDisconnect();
    virtual SubscribeResult PubSubSubscribe(const std::string& topic, bool flag);
    virtual std::uint32_t PubSubPublish(const std::string& topic,
                                        const std::vector<std::uint8_t>& payload, unsigned int qos,
                                        unsigned int messageExpirySeconds,
                                        PublishPayloadFormat format, const std::string& contentType,
                                        bool retain);
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_VI_CONNECTOR_HPP
