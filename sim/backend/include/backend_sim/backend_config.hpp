#ifndef BACKEND_SIM_BACKEND_CONFIG_HPP
#define BACKEND_SIM_BACKEND_CONFIG_HPP

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "sim_common/sim_defaults.hpp"

namespace backend_sim {

/// Everything the backend simulator can be told. Settings have one name
/// each, used both as command-line option ("--port") and in the INI file:
///
///     [server]   address, port, port-file, token, token-file, secret, event-log,
///                challenge-lifetime, tls-cert, tls-key, tls-client-ca
///     [paths]    challenge, download, feedback          (the exchanges' request paths)
///     [mqtt]     host, port, client-id, topic
///     [faults]   challenge|download|feedback = KIND[:ARG][:COUNT]
struct BackendConfig {
    std::string address = "127.0.0.1";
    std::uint16_t port = 8080;
    std::string portFile;
    std::string token = sim_common::kDefaultToken;
    std::string secret = sim_common::kDefaultSecret;
    std::string eventLog;
    std::chrono::seconds challengeLifetime{600};
    std::string challengePath = "/zelk/dlc/challenge";
    std::string downloadPath = "/zelk/dlc/download";
    std::string feedbackPath = "/zelk/dlc/feedback";
    std::string mqttHost = "127.0.0.1";
    std::uint16_t mqttPort = 1883;
    std::string mqttClientId = "kelvane-backend-sim";
    std::string mqttTopic = sim_common::kInitiationTopic;
    /// HTTPS with this certificate and key (PEM); client certificates from
    /// this CA required when set.
    std::string tlsCert;
    std::string tlsKey;
    std::string tlsClientCa;
    /// "EXCHANGE=KIND[:ARG][:COUNT]", in the order given.
    std::vector<std::string> faults;

    /// Sets one setting by its option name without "--" (e.g. "mqtt-port";
    /// "fault" appends; "token-file" reads the token's first line). False
    /// with a one-line reason in `error`.
    bool Set(const std::string& name, const std::string& value, std::string& error);
    /// Reads an INI file of the layout above; unknown sections or keys are errors.
    bool LoadIni(const std::string& path, std::string& error);
    /// Checks what single settings cannot: loopback only, distinct paths.
    bool Validate(std::string& error) const;
};

/// True for 127.0.0.0/8 and ::1 literals.
bool IsLoopbackAddress(const std::string& address);

}  // namespace backend_sim

#endif  // BACKEND_SIM_BACKEND_CONFIG_HPP
