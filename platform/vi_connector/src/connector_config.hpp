#ifndef VI_CONNECTOR_CONNECTOR_CONFIG_HPP
#define VI_CONNECTOR_CONNECTOR_CONFIG_HPP

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace vi_connector {

/// [mqtt]
struct MqttSettings {
    std::string host = "127.0.0.1";
    std::uint16_t port = 1883;
    std::string clientId;  // default: derived from this machine's id, see DeviceClientId()
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
};

/// An MQTT client id of this device: stable, and different from machine to
/// machine, so that a fleet's clients do not take over each other's sessions.
/// Derived from /etc/machine-id (hashed: the id itself is not disclosed), else
/// from the host name.
std::string DeviceClientId();

struct ConnectorConfig {
    MqttSettings mqtt;
    ConnectionStateSettings connectionState;
    BackendTlsSettings backendTls;
    std::map<std::string, TransactionSettings> transactions;

    /// Reads and checks `path`. On failure returns nothing and sets `error` to
    /// one sentence naming the file and the problem.
    static std::optional<ConnectorConfig> Load(const std::string& path, std::string& error);
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_CONNECTOR_CONFIG_HPP
