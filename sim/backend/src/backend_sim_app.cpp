#include "backend_sim/backend_sim_app.hpp"

#include <iostream>
#include <map>

#include "backend_sim/admin_api.hpp"
#include "backend_sim/backend_config.hpp"
#include "backend_sim/backend_service.hpp"
#include "backend_sim/event_log.hpp"
#include "backend_sim/fault_plan.hpp"
#include "backend_sim/http_server.hpp"
#include "backend_sim/mqtt_publisher.hpp"
#include "csc_logging/csc_logging.hpp"
#include "sim_common/atomic_file.hpp"
#include "sim_common/command_line.hpp"
#include "sim_common/sim_defaults.hpp"

namespace backend_sim {
namespace {

using csc_logging::CSCLogging;

constexpr const char* kProgram = "kelvane-backend-sim";

const char* const kOverview =
    "Usage: kelvane-backend-sim COMMAND [OPTIONS]\n"
    "\n"
    "A stand-in for the key-material backend: serves the challenge, download\n"
    "and status-feedback exchanges over HTTP/1.1 on loopback and publishes\n"
    "push messages through an MQTT broker.\n"
    "\n"
    "Commands:\n"
    "  run     serve the exchanges until SIGINT or SIGTERM\n"
    "  push    publish one push message on the initiation topic and exit\n"
    "\n"
    "'kelvane-backend-sim COMMAND --help' shows a command's options.\n"
    "Exit codes: 0 success, 1 failure, 2 bad command line.\n";

int UsageError(const std::string& reason) {
    std::cerr << kProgram << ": " << reason << " (see '" << kProgram << " --help')" << std::endl;
    return sim_common::kExitUsage;
}

int Failure(const std::string& reason) {
    CSCLogging::Error(reason);
    return sim_common::kExitFailure;
}

/// Settings that both commands read from --config and the command line.
struct SettingOptions {
    std::string configFile;
    std::map<std::string, std::string> values;
    std::vector<std::string> faults;

    struct Setting {
        std::string name;
        std::string valueName;
        std::string help;
    };

    void Declare(CLI::App& command, const std::vector<Setting>& settings) {
        command.add_option("--config", configFile, "INI file with settings (options override it)")
            ->option_text("FILE");
        for (const auto& setting : settings) {
            command.add_option("--" + setting.name, values[setting.name], setting.help)
                ->option_text(setting.valueName);
        }
    }

    /// Defaults, then the INI file, then the options given.
    bool Apply(const CLI::App& command, BackendConfig& config, std::string& error) const {
        if (!configFile.empty() && !config.LoadIni(configFile, error)) {
            return false;
        }
        for (const auto& [name, value] : values) {
            if (command.count("--" + name) != 0 && !config.Set(name, value, error)) {
                return false;
            }
        }
        for (const auto& fault : faults) {
            config.faults.push_back(fault);
        }
        return true;
    }
};

int Run(const std::vector<std::string>& arguments) {
    SettingOptions options;
    CLI::App command(
        "Serves the challenge (GET), download (POST) and feedback (POST)\n"
        "exchanges until SIGINT or SIGTERM. Admin endpoints: POST /admin/fault,\n"
        "GET|DELETE /admin/faults, POST /admin/push, GET /admin/status.\n"
        "Faults: EXCHANGE=KIND[:ARG][:COUNT], EXCHANGE one of challenge,\n"
        "download, feedback; KIND one of status:CODE, empty-body, garbage-body,\n"
        "delay:MS, continue, keep-open, close, hang, no-digits, bad-mac\n"
        "(download only), flood (endless body), trickle:MS (a body byte every MS)\n"
        "(download only); COUNT how many of the next requests it hits\n"
        "(default 1) or * for all.",
        std::string(kProgram) + " run");
    options.Declare(
        command,
        {{"address", "ADDR", "loopback address to listen on (default 127.0.0.1; ::1)"},
         {"port", "PORT", "TCP port, 0 picks a free one (default 8080)"},
         {"port-file", "FILE", "write the port listened on to this file"},
         {"token", "TOKEN", "bearer token the exchanges must carry"},
         {"secret", "TEXT", "shared secret vehicle keys derive from"},
         {"event-log", "FILE", "append a JSON line per exchange to this file"},
         {"challenge-lifetime", "SECONDS", "seconds a challenge stays valid (default 600)"},
         {"challenge-path", "PATH", "path of the challenge exchange (default /zelk/dlc/challenge)"},
         {"download-path", "PATH", "path of the download exchange (default /zelk/dlc/download)"},
         {"feedback-path", "PATH", "path of the feedback exchange (default /zelk/dlc/feedback)"},
         {"mqtt-host", "HOST", "MQTT broker host for /admin/push (default 127.0.0.1)"},
         {"mqtt-port", "PORT", "MQTT broker port (default 1883)"},
         {"mqtt-client-id", "ID", "MQTT client id prefix"},
         {"mqtt-topic", "TOPIC", "push topic (default TTVI-Kelvane-C003.CTzelkDlcInitiation)"},
         {"tls-cert", "FILE", "serve HTTPS with this certificate chain (PEM)"},
         {"tls-key", "FILE", "the private key of --tls-cert (PEM)"},
         {"tls-client-ca", "FILE", "require client certificates issued by this CA (PEM)"}});
    command.add_option("--fault", options.faults, "inject a fault, e.g. download=status:500:2")
        ->option_text("FAULT");
    std::string error;
    if (const auto done = sim_common::ParseCommand(command, arguments, error)) {
        return error.empty() ? *done : UsageError(error);
    }
    BackendConfig config;
    if (!options.Apply(command, config, error) || !config.Validate(error)) {
        return UsageError(error);
    }
    FaultPlan faults;
    for (const auto& definition : config.faults) {
        if (!faults.Add(definition, error)) {
            return UsageError(error);
        }
    }

    CSCLogging::InitLogging("BSIM", "kelvane backend simulator");
    EventLog events;
    if (!config.eventLog.empty() && !events.Open(config.eventLog, error)) {
        return Failure(error);
    }
    BackendService service(config);
    MqttPublisher::Settings mqtt;
    mqtt.host = config.mqttHost;
    mqtt.port = config.mqttPort;
    mqtt.clientId = config.mqttClientId;
    mqtt.topic = config.mqttTopic;
    AdminApi admin(faults, events, [mqtt](const std::string& payload, std::string& reason) {
        return MqttPublisher::Publish(mqtt, payload, reason);
    });
    HttpServer server({service, faults, admin, events});
    if (!config.tlsCert.empty() &&
        !server.UseTls(config.tlsCert, config.tlsKey, config.tlsClientCa, error)) {
        return Failure(error);
    }
    if (!server.Listen(config.address, config.port, error)) {
        return Failure(error);
    }
    const auto port = server.Port();
    if (!config.portFile.empty() &&
        !sim_common::WriteFileAtomically(config.portFile, std::to_string(port) + "\n", error)) {
        return Failure("cannot write the port file: " + error);
    }
    const bool v6 = config.address.find(':') != std::string::npos;
    CSCLogging::Info(csc_logging::CSCLogEntry()
                     << "Backend simulator listening on "
                     << (config.tlsCert.empty() ? "http://" : "https://")
                     << (v6 ? "[" + config.address + "]" : config.address) << ":" << port
                     << " (challenge " << config.challengePath << ", download "
                     << config.downloadPath << ", feedback " << config.feedbackPath << ")");
    for (const auto& pending : faults.Pending()) {
        CSCLogging::Info("Fault armed: " + pending);
    }
    server.Run(2, true);
    CSCLogging::Info("Backend simulator stopped");
    return sim_common::kExitOk;
}

int Push(const std::vector<std::string>& arguments) {
    SettingOptions options;
    std::string message = AdminApi::kDefaultPushMessage;
    int qos = 1;
    int timeout = 5000;
    bool retain = false;
    CLI::App command("Publishes one push message that asks vehicles for a key update.",
                     std::string(kProgram) + " push");
    options.Declare(command, {{"mqtt-host", "HOST", "MQTT broker host (default 127.0.0.1)"},
                              {"mqtt-port", "PORT", "MQTT broker port (default 1883)"},
                              {"mqtt-client-id", "ID", "MQTT client id prefix"},
                              {"mqtt-topic", "TOPIC",
                               "topic (default TTVI-Kelvane-C003.CTzelkDlcInitiation)"}});
    command
        .add_option("--message", message, "the message (default {\"request\":\"zelkDlcUpdate\"})")
        ->option_text("TEXT");
    command.add_option("--qos", qos, "MQTT quality of service (default 1)")
        ->option_text("0|1|2")
        ->check(CLI::Range(0, 2));
    command.add_option("--timeout", timeout, "give up after this many milliseconds (default 5000)")
        ->option_text("MS")
        ->check(CLI::Range(1, 600000));
    command.add_flag("--retain", retain,
                     "ask the broker to keep the message for later subscribers");
    std::string error;
    if (const auto done = sim_common::ParseCommand(command, arguments, error)) {
        return error.empty() ? *done : UsageError(error);
    }
    BackendConfig config;
    if (!options.Apply(command, config, error)) {
        return UsageError(error);
    }

    CSCLogging::InitLogging("BSIM", "kelvane backend simulator");
    MqttPublisher::Settings settings;
    settings.host = config.mqttHost;
    settings.port = config.mqttPort;
    settings.clientId = config.mqttClientId;
    settings.topic = config.mqttTopic;
    settings.qos = qos;
    settings.retain = retain;
    settings.timeout = std::chrono::milliseconds(timeout);
    if (!MqttPublisher::Publish(settings, message, error)) {
        return Failure("Push failed: " + error);
    }
    CSCLogging::Info("Push message published on " + settings.topic + " via " + settings.host + ":" +
                     std::to_string(settings.port));
    return sim_common::kExitOk;
}

}  // namespace

int BackendSimMain(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        return UsageError("missing command (run or push)");
    }
    const std::string& command = arguments[0];
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    if (command == "--help" || command == "-h" || command == "help") {
        std::cout << kOverview;
        return sim_common::kExitOk;
    }
    if (command == "--version") {
        std::cout << kProgram << " " << KELVANE_VERSION << std::endl;
        return sim_common::kExitOk;
    }
    if (command == "run") {
        return Run(rest);
    }
    if (command == "push") {
        return Push(rest);
    }
    return UsageError("unknown command '" + command + "' (run or push)");
}

}  // namespace backend_sim
