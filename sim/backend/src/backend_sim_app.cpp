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
using sim_common::CommandLine;

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

    void Declare(CommandLine& commandLine, const std::vector<Setting>& settings) {
        commandLine.Option("--config", "FILE", "INI file with settings (options override it)",
                           &configFile);
        for (const auto& setting : settings) {
            commandLine.Option("--" + setting.name, setting.valueName, setting.help,
                               &values[setting.name]);
        }
    }

    /// Defaults, then the INI file, then the options given.
    bool Apply(const CommandLine& commandLine, BackendConfig& config, std::string& error) const {
        if (!configFile.empty() && !config.LoadIni(configFile, error)) {
            return false;
        }
        for (const auto& [name, value] : values) {
            if (commandLine.Given("--" + name) && !config.Set(name, value, error)) {
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
    CommandLine commandLine(
        std::string(kProgram) + " run [OPTIONS]",
        "Serves the challenge (GET), download (POST) and feedback (POST)\n"
        "exchanges until SIGINT or SIGTERM. Admin endpoints: POST /admin/fault,\n"
        "GET|DELETE /admin/faults, POST /admin/push, GET /admin/status.\n"
        "Faults: EXCHANGE=KIND[:ARG][:COUNT], EXCHANGE one of challenge,\n"
        "download, feedback; KIND one of status:CODE, empty-body, garbage-body,\n"
        "delay:MS, continue, keep-open, close, hang, no-digits, bad-mac\n"
        "(download only); COUNT how many of the next requests it hits\n"
        "(default 1) or * for all.");
    options.Declare(
        commandLine,
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
    commandLine.Repeated("--fault", "FAULT", "inject a fault, e.g. download=status:500:2",
                         &options.faults);
    if (!commandLine.Parse(arguments)) {
        return UsageError(commandLine.Error());
    }
    if (commandLine.HelpRequested()) {
        std::cout << commandLine.Help();
        return sim_common::kExitOk;
    }
    BackendConfig config;
    std::string error;
    if (!options.Apply(commandLine, config, error) || !config.Validate(error)) {
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
    std::string qos = "1";
    std::string timeout = "5000";
    bool retain = false;
    CommandLine commandLine(std::string(kProgram) + " push [OPTIONS]",
                            "Publishes one push message that asks vehicles for a key update.");
    options.Declare(commandLine, {{"mqtt-host", "HOST", "MQTT broker host (default 127.0.0.1)"},
                                  {"mqtt-port", "PORT", "MQTT broker port (default 1883)"},
                                  {"mqtt-client-id", "ID", "MQTT client id prefix"},
                                  {"mqtt-topic", "TOPIC",
                                   "topic (default TTVI-Kelvane-C003.CTzelkDlcInitiation)"}});
    commandLine
        .Option("--message", "TEXT", "the message (default {\"request\":\"zelkDlcUpdate\"})",
                &message)
        .Option("--qos", "0|1|2", "MQTT quality of service (default 1)", &qos)
        .Option("--timeout", "MS", "give up after this many milliseconds (default 5000)", &timeout)
        .Flag("--retain", "ask the broker to keep the message for later subscribers", &retain);
    if (!commandLine.Parse(arguments)) {
        return UsageError(commandLine.Error());
    }
    if (commandLine.HelpRequested()) {
        std::cout << commandLine.Help();
        return sim_common::kExitOk;
    }
    BackendConfig config;
    std::string error;
    if (!options.Apply(commandLine, config, error)) {
        return UsageError(error);
    }
    const auto qosValue = sim_common::ParseInteger(qos, 0, 2);
    if (!qosValue) {
        return UsageError("bad qos '" + qos + "' (0, 1 or 2)");
    }
    const auto timeoutValue = sim_common::ParseInteger(timeout, 1, 600000);
    if (!timeoutValue) {
        return UsageError("bad timeout '" + timeout + "' (milliseconds, 1-600000)");
    }

    CSCLogging::InitLogging("BSIM", "kelvane backend simulator");
    MqttPublisher::Settings settings;
    settings.host = config.mqttHost;
    settings.port = config.mqttPort;
    settings.clientId = config.mqttClientId;
    settings.topic = config.mqttTopic;
    settings.qos = static_cast<int>(*qosValue);
    settings.retain = retain;
    settings.timeout = std::chrono::milliseconds(*timeoutValue);
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
