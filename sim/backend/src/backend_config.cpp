#include "backend_sim/backend_config.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <fstream>

#include "ini_file_reader/ini_file_reader.hpp"
#include "sim_common/parse_integer.hpp"

namespace backend_sim {
namespace {

bool SetPort(const std::string& name, const std::string& value, bool allowZero,
             std::uint16_t& target, std::string& error) {
    const auto port = sim_common::ParseInteger(value, allowZero ? 0 : 1, 65535);
    if (!port) {
        error = "bad " + name + " '" + value + "' (" + (allowZero ? "0" : "1") + "-65535)";
        return false;
    }
    target = static_cast<std::uint16_t>(*port);
    return true;
}

bool SetPath(const std::string& name, const std::string& value, std::string& target,
             std::string& error) {
    if (value.empty() || value[0] != '/' || value.find_first_of(" ?#\r\n") != std::string::npos ||
        value.compare(0, 7, "/admin/") == 0) {
        error =
            "bad " + name + " '" + value + "' (an absolute path without query, outside /admin/)";
        return false;
    }
    target = value;
    return true;
}

}  // namespace

bool IsLoopbackAddress(const std::string& address) {
    in_addr v4{};
    if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    in6_addr v6{};
    return ::inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

bool BackendConfig::Set(const std::string& name, const std::string& value, std::string& error) {
    if (name == "address") {
        address = value;
    } else if (name == "port") {
        return SetPort(name, value, true, port, error);
    } else if (name == "port-file") {
        portFile = value;
    } else if (name == "token") {
        if (value.empty() || value.find_first_of(" \t\r\n") != std::string::npos) {
            error = "bad token (must be non-empty, without blanks)";
            return false;
        }
        token = value;
    } else if (name == "token-file") {
        std::ifstream file(value);
        std::string text;
        if (!file || !std::getline(file, text)) {
            error = "cannot read a token from '" + value + "'";
            return false;
        }
        while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) {
            text.pop_back();
        }
        return Set("token", text, error);
    } else if (name == "secret") {
        if (value.empty()) {
            error = "the secret must not be empty";
            return false;
        }
        secret = value;
    } else if (name == "event-log") {
        eventLog = value;
    } else if (name == "challenge-lifetime") {
        const auto seconds = sim_common::ParseInteger(value, 1, 86400);
        if (!seconds) {
            error = "bad challenge-lifetime '" + value + "' (seconds, 1-86400)";
            return false;
        }
        challengeLifetime = std::chrono::seconds(*seconds);
    } else if (name == "challenge-path") {
        return SetPath(name, value, challengePath, error);
    } else if (name == "download-path") {
        return SetPath(name, value, downloadPath, error);
    } else if (name == "feedback-path") {
        return SetPath(name, value, feedbackPath, error);
    } else if (name == "mqtt-host") {
        mqttHost = value;
    } else if (name == "mqtt-port") {
        return SetPort(name, value, false, mqttPort, error);
    } else if (name == "mqtt-client-id") {
        mqttClientId = value;
    } else if (name == "mqtt-topic") {
        if (value.empty() || value.find_first_of("+#") != std::string::npos) {
            error = "bad mqtt-topic '" + value + "' (non-empty, no wildcards)";
            return false;
        }
        mqttTopic = value;
    } else if (name == "tls-cert") {
        tlsCert = value;
    } else if (name == "tls-key") {
        tlsKey = value;
    } else if (name == "tls-client-ca") {
        tlsClientCa = value;
    } else if (name == "fault") {
        faults.push_back(value);
    } else {
        error = "unknown setting '" + name + "'";
        return false;
    }
    return true;
}

bool BackendConfig::LoadIni(const std::string& path, std::string& error) {
    struct Mapping {
        const char* section;
        const char* key;
        const char* setting;
    };
    static constexpr Mapping kMappings[] = {
        {"server", "address", "address"},
        {"server", "port", "port"},
        {"server", "port-file", "port-file"},
        {"server", "token", "token"},
        {"server", "token-file", "token-file"},
        {"server", "secret", "secret"},
        {"server", "event-log", "event-log"},
        {"server", "challenge-lifetime", "challenge-lifetime"},
        {"server", "tls-cert", "tls-cert"},
        {"server", "tls-key", "tls-key"},
        {"server", "tls-client-ca", "tls-client-ca"},
        {"paths", "challenge", "challenge-path"},
        {"paths", "download", "download-path"},
        {"paths", "feedback", "feedback-path"},
        {"mqtt", "host", "mqtt-host"},
        {"mqtt", "port", "mqtt-port"},
        {"mqtt", "client-id", "mqtt-client-id"},
        {"mqtt", "topic", "mqtt-topic"},
    };
    ini_file_reader::IniFileReader reader;
    if (!reader.Load(path)) {
        error = reader.Errors().empty() ? "cannot read " + path : reader.Errors().front();
        return false;
    }
    for (const auto& section : reader.Sections()) {
        for (const auto& key : reader.Keys(section)) {
            const std::string value = *reader.Get(section, key);
            const std::string where = path + ": [" + section + "] " + key + ": ";
            std::string reason;
            bool ok = false;
            if (section == "faults") {
                ok = Set("fault", key + "=" + value, reason);
            } else {
                const Mapping* mapping = nullptr;
                for (const auto& candidate : kMappings) {
                    if (section == candidate.section && key == candidate.key) {
                        mapping = &candidate;
                    }
                }
                if (mapping == nullptr) {
                    error = where + "unknown setting";
                    return false;
                }
                ok = Set(mapping->setting, value, reason);
            }
            if (!ok) {
                error = where + reason;
                return false;
            }
        }
    }
    return true;
}

bool BackendConfig::Validate(std::string& error) const {
    if (!IsLoopbackAddress(address)) {
        error = "refusing to listen on '" + address +
                "': the simulator binds loopback addresses only (127.0.0.1, ::1)";
        return false;
    }
    if (challengePath == downloadPath || challengePath == feedbackPath ||
        downloadPath == feedbackPath) {
        error = "the challenge, download and feedback paths must differ";
        return false;
    }
    if (tlsCert.empty() != tlsKey.empty() || (!tlsClientCa.empty() && tlsCert.empty())) {
        error = "TLS needs both tls-cert and tls-key (tls-client-ca only with them)";
        return false;
    }
    return true;
}

}  // namespace backend_sim
