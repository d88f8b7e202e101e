#ifndef VI_CONNECTOR_BROKER_RELAY_HPP
#define VI_CONNECTOR_BROKER_RELAY_HPP

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "mqtt_packet_gate.hpp"
#include "openssl_handles.hpp"
#include "unique_fd/unique_fd.hpp"

namespace vi_connector {

/// One MQTT connection carried between libmosquitto and the broker. The relay
/// owns the broker's socket (and its TLS); libmosquitto connects to it over a
/// unix socket in a private directory that only this process may use, and
/// every packet passes an MqttPacketGate, so libmosquitto never reads a
/// packet larger than the gate's bound, whatever the broker sends. Nothing
/// the client writes leaves before the broker's certificate is verified.
class BrokerRelay {
public:
    /// A relay listening for libmosquitto at SocketPath(); nothing when no
    /// socket can be made (`error` says why).
    static std::unique_ptr<BrokerRelay> Listen(std::string& error);
    /// Stop() and clean up.
    ~BrokerRelay();
    BrokerRelay(const BrokerRelay&) = delete;
    BrokerRelay& operator=(const BrokerRelay&) = delete;

    const std::string& SocketPath() const { return socketPath_; }

    /// Takes libmosquitto's connection (from this process, within a second),
    /// removes the socket, and starts the thread that connects to host:port
    /// (with TLS when `tls` is set, the broker's name checked against `host`)
    /// and relays until either side ends. False and `error` when no connection
    /// of this process came.
    bool Start(const std::string& host, std::uint16_t port, std::shared_ptr<SSL_CTX> tls,
               int connectTimeoutMs, std::string& error);
    /// Ends the relay at once, after a last attempt to pass on what the client
    /// wrote last (its DISCONNECT); waits for the thread. Idempotent.
    void Stop();

    /// After Stop(): why the relay ended the connection (cannot connect, TLS,
    /// a packet the gate refused, the broker closed it), empty when the client ended it.
    const std::string& Failure() const { return failure_; }
    /// After Stop(): the broker's DISCONNECT, if one came.
    const std::optional<MqttPacketGate::Disconnect>& BrokerDisconnect() const {
        return disconnect_;
    }

private:
    BrokerRelay() = default;
    void Run();
    bool ConnectToBroker();
    bool Handshake();
    void Pump();
    // 1 ready, 0 time out, -1 stop requested or poll failed.
    int WaitFor(int fd, short events, int timeoutMs) const;
    bool Fail(const std::string& problem);
    void RemoveSocket();

    std::string directory_;
    std::string socketPath_;
    unique_fd::UniqueFd listenFd_;
    unique_fd::UniqueFd clientFd_;
    unique_fd::UniqueFd brokerFd_;
    unique_fd::UniqueFd wakeRead_;
    unique_fd::UniqueFd wakeWrite_;

    // Set by Start(), then only the thread touches them until Stop() joined it.
    std::string host_;
    std::uint16_t port_ = 0;
    std::shared_ptr<SSL_CTX> tls_;
    SslPtr ssl_;  // once the handshake began
    std::int64_t deadlineMs_ = 0;
    MqttPacketGate gate_;
    std::string failure_;
    std::optional<MqttPacketGate::Disconnect> disconnect_;
    std::thread thread_;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_BROKER_RELAY_HPP
