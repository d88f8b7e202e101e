#ifndef VI_CONNECTOR_VI_CONNECTOR_HPP
#define VI_CONNECTOR_VI_CONNECTOR_HPP

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vi_connector/vi_pub_sub_callback_if.hpp"
#include "vi_connector/vi_service_controller_callback_if.hpp"
#include "vi_connector/vi_session_callback_if.hpp"
#include "vi_connector/vi_types.hpp"

namespace vi_connector {

struct ConnectorConfig;
class MosquittoPubSub;
class ServiceStateMonitor;
class TlsConnector;

/// The vehicle's connectivity service on a development host: configuration
/// from an INI file (KELVANE_VI_CONFIG, default /etc/kelvane-client/vi-connector.ini),
/// real TCP sockets, MQTT through libmosquitto.
///
/// Every method is virtual so that a test can derive a fake from it.
class VIConnector {
public:
    static constexpr const char* kDefaultConfigPath = "/etc/kelvane-client/vi-connector.ini";
    /// KELVANE_VI_CONFIG when set, else kDefaultConfigPath.
    static std::string ConfigPathFromEnvironment();

    explicit VIConnector(VISessionCallbackIf* sessionCallback,
                         VIPubSubCallbackIf* pubSubCallback = nullptr,
                         std::string configPath = ConfigPathFromEnvironment());
    virtual ~VIConnector();
    VIConnector(const VIConnector&) = delete;
    VIConnector& operator=(const VIConnector&) = delete;

    /// Reads the configuration and reports kOk or kRejected exactly once,
    /// through VIConnectorStatus from a connector thread.
    virtual void Start();
    virtual void Stop();
    virtual SessionStatus GetSessionStatus() const;

    /// Bearer token of a transaction type (status 1 on success).
    virtual TokenResult GetToken(const std::string& transactionTypeId);
    /// Invocation URL of a transaction type (status 0 on success).
    virtual UrlResult GetInvocationUrl(const std::string& transactionTypeId);

    /// Reports the connection state of the transaction type once now and on
    /// every change. Non-zero on success, zero on failure (not started, no
    /// callback). The state comes from [connection_state]: the kernel's routes
    /// to the backend confirmed by probes, or a fixed value.
    virtual unsigned int SubscribeTransactionTypeState(std::string transactionTypeId,
                                                       VIServiceControllerCallbackIf* callback,
                                                       unsigned int flags);
    /// A connected TCP socket to host:port on behalf of a transaction type.
    virtual SocketResult SocketConnect(const std::string& transactionTypeId,
                                       const std::string& host, std::uint16_t port);

    /// Starts the MQTT session to the configured [mqtt] broker (needs a
    /// successful Start()). `callback`, or else the constructor's pub/sub
    /// callback, sees kDisconnected now and kConnected once the broker accepted
    /// the session, and so on every reconnection. 0 connected, 1 under way,
    /// 3 already connected, other values failures.
    virtual std::uint32_t PubSubConnect(VIPubSubCallbackIf* callback);
    /// Ends the session (0), or 2 when none was running; the end itself is
    /// neither notified nor logged. Once it returns no notification is under
    /// way (unless called from one of them) and none follows until the next
    /// PubSubConnect, so the callback's owner may destroy it.
    virtual std::uint32_t PubSubDisconnect();
    /// Subscribes with QoS 1: 0 and the SUBSCRIBE's message id when the link is
    /// up; while it is down, 3 (sent once it is up) when `flag` is true, else a
    /// failure. The broker's answer arrives as VISubscribeAcknowledgeReceived.
    virtual SubscribeResult PubSubSubscribe(const std::string& topic, bool flag);
    /// Publishes while the link is up (0); a failure otherwise.
    virtual std::uint32_t PubSubPublish(const std::string& topic,
                                        const std::vector<std::uint8_t>& payload, unsigned int qos,
                                        unsigned int messageExpirySeconds,
                                        PublishPayloadFormat format, const std::string& contentType,
                                        bool retain);

protected:
    /// For fakes that override everything: no configuration is read.
    struct NoConfiguration {};
    explicit VIConnector(NoConfiguration);

private:
    std::shared_ptr<const ConnectorConfig> Config() const;

    VISessionCallbackIf* sessionCallback_ = nullptr;
    VIPubSubCallbackIf* pubSubCallback_ = nullptr;  // guarded by mutex_
    std::string configPath_;

    mutable std::mutex mutex_;
    std::shared_ptr<const ConnectorConfig> config_;
    std::shared_ptr<TlsConnector> tls_;  // with config_ when a transaction is https://
    std::atomic<SessionStatus> sessionStatus_{SessionStatus::kNotStarted};
    std::thread startThread_;
    std::unique_ptr<MosquittoPubSub> pubSub_;            // created on first use, under mutex_
    std::shared_ptr<ServiceStateMonitor> stateMonitor_;  // guarded by mutex_
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_VI_CONNECTOR_HPP
