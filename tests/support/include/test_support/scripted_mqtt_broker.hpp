#ifndef TEST_SUPPORT_SCRIPTED_MQTT_BROKER_HPP
#define TEST_SUPPORT_SCRIPTED_MQTT_BROKER_HPP

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kelvane::testing {

/// An MQTT broker of raw bytes on loopback, for what mosquitto cannot play: it accepts every
/// session (or refuses MQTT 5 as a 3.1.1-only broker), grants every subscription, answers pings,
/// sends what the test scripted after a CONNACK or SUBACK and records every packet it receives,
/// one connection at a time, over TLS when given a certificate and key.
class ScriptedMqttBroker {
public:
    struct Options {
        bool onlyV311 = false;
        std::string afterConnack;  // sent after a CONNACK that accepts the session
        bool closeAfterConnack = false;
        std::string afterSuback;  // sent after every SUBACK
        std::string certFile;     // PEM, with keyFile: TLS
        std::string keyFile;
        std::string suite;         // when set, TLS 1.2 with this one cipher suite only
        std::string clientCaFile;  // when set, a client certificate from this CA is demanded
    };
    /// A received packet: its type (upper four bits of the first byte) and its bytes.
    struct Packet {
        std::uint8_t type;
        std::string bytes;
    };

    explicit ScriptedMqttBroker(Options options);
    ~ScriptedMqttBroker();
    ScriptedMqttBroker(const ScriptedMqttBroker&) = delete;
    ScriptedMqttBroker& operator=(const ScriptedMqttBroker&) = delete;

    std::uint16_t Port() const { return port_; }
    std::size_t Connections() const { return connections_; }
    /// Connections whose TLS handshake (if any) completed.
    std::size_t Handshakes() const { return handshakes_; }
    /// The packets of `type` received so far, once there are `count` of them
    /// (fewer on time-out).
    std::vector<Packet> WaitForPackets(std::uint8_t type, std::size_t count,
                                       std::chrono::milliseconds timeout) const;

    /// PUBLISH of `payload` (QoS 1 and 2 carry `id`), in MQTT 5 form when `v5`.
    static std::string Publish(const std::string& topic, const std::string& payload, int qos,
                               std::uint16_t id, bool v5);
    /// MQTT 5 DISCONNECT with a reason code and, when not empty, a reason string.
    static std::string Disconnect(std::uint8_t reason, const std::string& reasonString);

private:
    class Connection;
    void Serve();
    void Play(Connection& connection);

    Options options_;
    int listenFd_ = -1;
    std::uint16_t port_ = 0;
    void* tls_ = nullptr;  // SSL_CTX

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    int servingFd_ = -1;  // the connection being served
    bool stopping_ = false;
    std::atomic<std::size_t> connections_{0};
    std::atomic<std::size_t> handshakes_{0};
    std::vector<Packet> packets_;
    std::thread thread_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_SCRIPTED_MQTT_BROKER_HPP
