#include "connector_config.hpp"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <stdexcept>
#include <vector>

#include "ini_file_reader/ini_file_reader.hpp"
#include "loopback_host.hpp"
#include "secret_file.hpp"

namespace vi_connector {
namespace {

constexpr const char* kTransactionPrefix = "transaction ";

// Collects the first problem; later lookups become no-ops.
class Reader {
public:
    Reader(const ini_file_reader::IniFileReader& ini, std::string path)
        : ini_(ini), path_(std::move(path)) {}

    bool Failed() const { return !error_.empty(); }
    const std::string& Error() const { return error_; }
    void Fail(const std::string& problem) {
        if (error_.empty()) {
            error_ = path_ + ": " + problem;
        }
    }

    void Text(const std::string& section, const std::string& key, std::string& out) {
        if (auto value = ini_.Get(section, key)) {
            out = *value;
        }
    }

    void Number(const std::string& section, const std::string& key, long min, long max, long& out) {
        const auto value = ini_.Get(section, key);
        if (!value || Failed()) {
            return;
        }
        try {
            std::size_t used = 0;
            const long number = std::stol(*value, &used);
            if (used != value->size() || number < min || number > max) {
                throw std::out_of_range(*value);
            }
            out = number;
        } catch (const std::exception&) {
            Fail("[" + section + "] " + key + "='" + *value + "' is not a number from " +
                 std::to_string(min) + " to " + std::to_string(max));
        }
    }

    template <typename T>
    void Number(const std::string& section, const std::string& key, long min, long max, T& out) {
        long number = static_cast<long>(out);
        Number(section, key, min, max, number);
        out = static_cast<T>(number);
    }

    void Flag(const std::string& section, const std::string& key, bool& out) {
        const std::string value = ini_.Get(section, key, out ? "true" : "false");
        if (value == "true" || value == "false") {
            out = value == "true";
        } else {
            Fail("[" + section + "] " + key + "='" + value + "' is neither true nor false");
        }
    }

    void OnlyKeys(const std::string& section, const std::set<std::string>& known) {
        for (const auto& key : ini_.Keys(section)) {
            if (known.count(key) == 0) {
                Fail("unknown key '" + key + "' in [" + section + "]");
            }
        }
    }

private:
    const ini_file_reader::IniFileReader& ini_;
    std::string path_;
    std::string error_;
};

// A file name inside $CREDENTIALS_DIRECTORY, nothing that leaves it.
bool IsCredentialName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

void ReadBackendTls(const ini_file_reader::IniFileReader& ini, Reader& read,
                    BackendTlsSettings& tls) {
    read.OnlyKeys("backend_tls", {"ca_file", "cert_file", "key_file", "min_version"});
    read.Text("backend_tls", "ca_file", tls.caFile);
    read.Text("backend_tls", "cert_file", tls.certFile);
    read.Text("backend_tls", "key_file", tls.keyFile);
    if (tls.certFile.empty() != tls.keyFile.empty()) {
        read.Fail("[backend_tls] needs both cert_file and key_file, or neither");
    }
    const std::string version = ini.Get("backend_tls", "min_version", "1.2");
    if (version == "1.3") {
        tls.minVersion = 13;
    } else if (version != "1.2") {
        read.Fail("[backend_tls] min_version='" + version + "' is neither 1.2 nor 1.3");
    }
}

}  // namespace

std::optional<std::string> DeviceClientId(const std::string& machineIdPath) {
    // A machine id is 32 hex digits and a line end; read no more than a little over that.
    char buffer[128] = {};
    std::ifstream file(machineIdPath, std::ios::binary);
    file.read(buffer, sizeof(buffer) - 1);
    std::string seed(buffer, static_cast<std::size_t>(file.gcount()));
    seed = seed.substr(0, seed.find_first_of("\r\n"));
    if (seed.empty() || seed == "uninitialized") {
        return std::nullopt;
    }
    // FNV-1a, keyed with our name: another program's id derived from the same
    // machine id differs.
    std::uint64_t hash = 14695981039346656037ULL;
    for (const char c : "kelvane-client/" + seed) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    }
    char text[17];
    std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(hash));
    return std::string("kelvane-") + text;
}

std::optional<ConnectorConfig> ConnectorConfig::Load(const std::string& path, std::string& error,
                                                     const std::string& machineIdPath) {
    ini_file_reader::IniFileReader ini;
    if (!ini.Load(path)) {
        error = ini.Errors().front();
        return std::nullopt;
    }
    ConnectorConfig config;
    Reader read(ini, path);

    for (const auto& section : ini.Sections()) {
        const bool known = section == "mqtt" || section == "connection_state" ||
                           section == "backend_tls" || section.rfind(kTransactionPrefix, 0) == 0;
        if (!known) {
            read.Fail("unknown section [" + section + "]");
        }
    }

    auto& mqtt = config.mqtt;
    read.OnlyKeys("mqtt", {"host", "port", "client_id", "protocol", "session_expiry", "keep_alive",
                           "reconnect_delay_min_ms", "reconnect_delay_max_ms", "tls_ca_file",
                           "tls_cert_file", "tls_key_file", "allow_plaintext"});
    read.Text("mqtt", "host", mqtt.host);
    read.Number("mqtt", "port", 1, 65535, mqtt.port);
    read.Text("mqtt", "client_id", mqtt.clientId);
    const std::string protocol = ini.Get("mqtt", "protocol", "auto");
    if (protocol == "5") {
        mqtt.protocol = MqttSettings::Protocol::kV5;
    } else if (protocol == "3.1.1") {
        mqtt.protocol = MqttSettings::Protocol::kV311;
    } else if (protocol != "auto") {
        read.Fail("[mqtt] protocol='" + protocol + "' is none of 5, 3.1.1 and auto");
    }
    read.Number("mqtt", "session_expiry", 0, 4294967295L, mqtt.sessionExpirySeconds);
    read.Number("mqtt", "keep_alive", 5, 65535, mqtt.keepAliveSeconds);
    read.Number("mqtt", "reconnect_delay_min_ms", 10, 600000, mqtt.reconnectDelayMinMs);
    read.Number("mqtt", "reconnect_delay_max_ms", 10, 600000, mqtt.reconnectDelayMaxMs);
    read.Text("mqtt", "tls_ca_file", mqtt.tlsCaFile);
    read.Text("mqtt", "tls_cert_file", mqtt.tlsCertFile);
    read.Text("mqtt", "tls_key_file", mqtt.tlsKeyFile);
    if (mqtt.reconnectDelayMaxMs < mqtt.reconnectDelayMinMs) {
        read.Fail("[mqtt] reconnect_delay_max_ms is below reconnect_delay_min_ms");
    }
    read.Flag("mqtt", "allow_plaintext", mqtt.allowPlaintext);
    if (mqtt.tlsCaFile.empty() && !mqtt.allowPlaintext && !IsLoopbackHost(mqtt.host)) {
        read.Fail("[mqtt] host='" + mqtt.host +
                  "' is not on loopback and tls_ca_file is not set: push messages would "
                  "cross the network in plain text (set allow_plaintext = true to accept that)");
    }
    // libmosquitto opens the key itself: it is held to the rule here.
    std::string keyProblem;
    if (!mqtt.tlsKeyFile.empty() && !CheckSecretFile(mqtt.tlsKeyFile, keyProblem)) {
        read.Fail("[mqtt] tls_key_file: " + keyProblem);
    }
    if (mqtt.clientId.empty()) {
        if (auto id = DeviceClientId(machineIdPath)) {
            mqtt.clientId = std::move(*id);
        } else {
            read.Fail("[mqtt] client_id is not set and " + machineIdPath +
                      " is missing, empty or uninitialized: set [mqtt] client_id to an id of "
                      "this vehicle, or give the machine an id (systemd-machine-id-setup)");
        }
    }

    auto& state = config.connectionState;
    read.OnlyKeys("connection_state",
                  {"mode", "state", "probe_interval_ms", "probe_retry_min_ms", "probe_retry_max_ms",
                   "probe_timeout_ms", "probe_host", "probe_port"});
    const std::string mode = ini.Get("connection_state", "mode", "probe");
    if (mode == "fixed") {
        state.mode = ConnectionStateSettings::Mode::kFixed;
    } else if (mode != "probe") {
        read.Fail("[connection_state] mode='" + mode + "' is neither probe nor fixed");
    }
    read.Number("connection_state", "state", 0, 255, state.fixedState);
    read.Number("connection_state", "probe_interval_ms", 10, 86400000, state.probeIntervalMs);
    read.Number("connection_state", "probe_retry_min_ms", 10, 86400000, state.probeRetryMinMs);
    read.Number("connection_state", "probe_retry_max_ms", 10, 86400000, state.probeRetryMaxMs);
    if (state.probeRetryMaxMs < state.probeRetryMinMs) {
        read.Fail("[connection_state] probe_retry_max_ms is below probe_retry_min_ms");
    }
    read.Number("connection_state", "probe_timeout_ms", 10, 60000, state.probeTimeoutMs);
    read.Text("connection_state", "probe_host", state.probeHost);
    read.Number("connection_state", "probe_port", 1, 65535, state.probePort);

    ReadBackendTls(ini, read, config.backendTls);

    for (const auto& section : ini.Sections()) {
        if (section.rfind(kTransactionPrefix, 0) != 0) {
            continue;
        }
        const std::string id = section.substr(std::string(kTransactionPrefix).size());
        read.OnlyKeys(section,
                      {"url", "token", "token_file", "token_credential", "allow_plaintext"});
        TransactionSettings transaction;
        read.Text(section, "url", transaction.url);
        read.Text(section, "token", transaction.token);
        read.Text(section, "token_file", transaction.tokenFile);
        read.Text(section, "token_credential", transaction.tokenCredential);
        read.Flag(section, "allow_plaintext", transaction.allowPlaintext);
        if (transaction.url.empty()) {
            read.Fail("[" + section + "] has no url");
        }
        const int sources = int{!transaction.token.empty()} + int{!transaction.tokenFile.empty()} +
                            int{!transaction.tokenCredential.empty()};
        if (sources != 1) {
            read.Fail("[" + section +
                      "] needs exactly one of token, token_file and token_credential");
        }
        if (!transaction.tokenCredential.empty() &&
            !IsCredentialName(transaction.tokenCredential)) {
            read.Fail("[" + section + "] token_credential='" + transaction.tokenCredential +
                      "' is not a plain file name");
        }
        if (SchemeOfUrl(transaction.url) == "http" && !transaction.allowPlaintext &&
            !IsLoopbackHost(HostOfUrl(transaction.url))) {
            read.Fail("[" + section + "] url='" + transaction.url +
                      "' is plain http to a host that is not on loopback: its bearer token would "
                      "cross the network in plain text (use https://, or set allow_plaintext = "
                      "true to accept that)");
        }
        // This file then holds a secret itself.
        std::string fileProblem;
        if (!transaction.token.empty() && !CheckSecretFile(path, fileProblem)) {
            read.Fail("[" + section +
                      "] has an inline token, so this file must be kept like a "
                      "token file: " +
                      fileProblem);
        }
        config.transactions[id] = transaction;
    }
    if (config.transactions.empty()) {
        read.Fail("no [transaction <id>] section");
    }

    if (read.Failed()) {
        error = read.Error();
        return std::nullopt;
    }
    return config;
}

}  // namespace vi_connector
