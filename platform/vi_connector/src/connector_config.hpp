#ifndef VI_CONNECTOR_CONNECTOR_CONFIG_HPP
#define VI_CONNECTOR_CONNECTOR_CONFIG_HPP

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace vi_connector {

/// [mqtt]
struct MqttSettings {
    /// kAuto: MQTT 5, and 3.1.1 from the moment the broker refuses version 5.
    enum class Protocol { kAuto, kV5, kV311 };

    std::string host = "127.0.0.1";
    std::uint16_t port = 1883;
    std::string clientId;  // default: derived from this machine's id, see DeviceClientId()
    Protocol protocol = Protocol::kAuto;
    // How long the broker keeps the session (and the pushes for it) while we are away.
    std::uint32_t sessionExpirySeconds = 7 * 24 * 3600;
    int keepAliveSeconds = 30;
    int reconnectDelayMinMs = 250;    // first back-off step
    int reconnectDelayMaxMs = 10000;  // back-off ceiling
    std::string tlsCaFile;            // TLS when set
    std::string tlsCertFile;
    std::string tlsKeyFile;
    bool allowPlaintext = false;  // a remote broker without TLS is refused otherwise
};

/// [connection_state]
struct ConnectionStateSettings {
    enum class Mode { kProbe, kFixed };
    Mode mode = Mode::kProbe;
    std::uint8_t fixedState = 2;  // mode = fixed
    // mode = probe: routes watched, a TCP connect to the backend when they
    // change, and every interval (backing off from retry min to max while it fails)
    int probeIntervalMs = 600000;
    int probeRetryMinMs = 5000;
    int probeRetryMaxMs = 300000;
    int probeTimeoutMs = 2000;
    std::string probeHost;  // default: the host of the first transaction URL
    std::uint16_t probePort = 0;
};

/// [backend_tls]: how https:// transactions are carried
struct BackendTlsSettings {
    std::string caFile;    // PEM bundle; empty: the system trust store
    std::string certFile;  // client certificate (PEM), with keyFile for mutual TLS
    std::string keyFile;
    int minVersion = 12;  // 12: TLS 1.2, 13: TLS 1.3
};

/// [transaction <id>]
struct TransactionSettings {
    std::string url;
    std::string token;            // inline, or
    std::string tokenFile;        // read at every GetToken (rotated tokens are picked up), or
    std::string tokenCredential;  // $CREDENTIALS_DIRECTORY/<name>, read like tokenFile
    bool allowPlaintext = false;  // an http:// url to a remote host is refused otherwise
};

constexpr const char* kMachineIdPath = "/etc/machine-id";

/// An MQTT client id of this device: stable, and different from machine to
/// machine, so that a fleet's clients do not take over each other's sessions.
/// Derived from the machine id in `machineIdPath` (hashed: the id itself is not
/// disclosed). Nothing when the file is missing, empty or "uninitialized": a
/// host name is no substitute, cloned images share theirs.
std::optional<std::string> DeviceClientId(const std::string& machineIdPath);

struct ConnectorConfig {
    MqttSettings mqtt;
    ConnectionStateSettings connectionState;
    BackendTlsSettings backendTls;
    std::map<std::string, TransactionSettings> transactions;

    /// Reads and checks `path`. On failure returns nothing and sets `error` to
    /// one sentence naming the file and the problem.
    static std::optional<ConnectorConfig> Load(const std::string& path, std::string& error,
                                               const std::string& machineIdPath = kMachineIdPath);
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_CONNECTOR_CONFIG_HPP
