#include "e2e_environment.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "test_support/loopback.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::FindProgram;
using testing::ReadFile;
using testing::WaitUntil;

constexpr const char* kToken = "e2e-bearer-token";
constexpr const char* kSecret = "e2e-shared-secret";

std::size_t CountOccurrences(const std::string& haystack, const std::string& needle) {
    std::size_t count = 0;
    for (auto at = haystack.find(needle); at != std::string::npos;
         at = haystack.find(needle, at + needle.size())) {
        ++count;
    }
    return count;
}

}  // namespace

E2eEnvironment::E2eEnvironment() : E2eEnvironment(Options{}) {}

E2eEnvironment::E2eEnvironment(Options options) : E2eEnvironment(std::move(options), "") {}

E2eEnvironment::E2eEnvironment(Options options, const std::string& brokerExtraConfig)
    : options_(std::move(options))
    , broker_(brokerExtraConfig)
    , backendPort_(testing::FreeTcpPort())
    , stateDir_(directory_.File("vehicle")) {
    const auto [status, output] = RunTool(
        {FindProgram("kelvane-vehicle-sim"), "init", "--state", stateDir_, "--base-cert-days",
         std::to_string(options_.baseCertificateDays), "--secret", kSecret});
    if (status != 0) {
        throw std::runtime_error("kelvane-vehicle-sim init failed: " + output);
    }
    const std::string& pki = options_.tlsDirectory;
    const std::string base =
        (pki.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") + std::to_string(backendPort_);
    const std::string tls = pki.empty() ? ""
                                        : "[backend_tls]\nca_file = " + pki +
                                              "/ca.pem\ncert_file = " + pki +
                                              "/client.pem\nkey_file = " + pki + "/client.key\n";
    directory_.Write("vi-connector.ini",
                     tls + "[mqtt]\nhost = 127.0.0.1\nport = " + std::to_string(broker_.Port()) +
                         "\nclient_id = kelvane-client-e2e\nkeep_alive = 10\n"
                         "reconnect_delay_min_ms = 100\nreconnect_delay_max_ms = 1000\n"
                         "[connection_state]\nmode = probe\nprobe_interval_ms = 200\n"
                         "probe_timeout_ms = 500\n"
                         "[transaction TTVI-Kelvane-C003.COzelkDlcChallenge]\nurl = " +
                         base + "/zelk/dlc/challenge\ntoken = " + kToken +
                         "\n[transaction TTVI-Kelvane-C003.COzelkDlcDownload]\nurl = " + base +
                         "/zelk/dlc/download\ntoken = " + kToken +
                         "\n[transaction TTVI-Kelvane-C003.COzelkDlcStatusFeedback]\nurl = " +
                         base + "/zelk/dlc/feedback\ntoken = " + kToken + "\n");
    directory_.Write("phm.ini", "[supervision]\nkeep_alive_period_ms = 1000\n");

    StartVehicle();
    if (options_.startBackend) {
        StartBackend(options_.backendFaults);
    }
}

E2eEnvironment::~E2eEnvironment() {
    client_.reset();
    backend_.reset();
    vehicle_.reset();
}

void E2eEnvironment::StartBackend(const std::vector<std::string>& faults) {
    std::vector<std::string> argv = {FindProgram("kelvane-backend-sim"),
                                     "run",
                                     "--port",
                                     std::to_string(backendPort_),
                                     "--token",
                                     kToken,
                                     "--secret",
                                     kSecret,
                                     "--event-log",
                                     directory_.File("backend-events.jsonl"),
                                     "--mqtt-port",
                                     std::to_string(broker_.Port())};
    if (const auto& pki = options_.tlsDirectory; !pki.empty()) {
        argv.insert(argv.end(), {"--tls-cert", pki + "/server.pem", "--tls-key",
                                 pki + "/server.key", "--tls-client-ca", pki + "/ca.pem"});
    }
    for (const auto& fault : faults) {
        argv.push_back("--fault");
        argv.push_back(fault);
    }
    backend_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{argv, {}, directory_.File("backend.log")});
    if (!WaitUntil([this] { return testing::AcceptsConnections(backendPort_); }, 10s)) {
        throw std::runtime_error("backend simulator did not come up: " + Logs());
    }
}

void E2eEnvironment::StopBackend() {
    if (backend_) {
        backend_->Stop();
        backend_.reset();
    }
}

void E2eEnvironment::StartVehicle() {
    vehicle_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{{FindProgram("kelvane-vehicle-sim"), "run", "--state", stateDir_},
                              {{"KELVANE_LOG", "console"}},
                              directory_.File("vehicle.log")});
    if (!WaitUntil([this] { return VehicleStatus()["running"] == "true"; }, 10s, 50ms)) {
        throw std::runtime_error("vehicle simulator did not come up: " + Logs());
    }
}

void E2eEnvironment::StopVehicle() {
    if (vehicle_) {
        vehicle_->Stop();
        vehicle_.reset();
    }
}

void E2eEnvironment::KillVehicle() {
    if (vehicle_) {
        vehicle_->Signal(SIGKILL);
        vehicle_->WaitForExit(5s);
        vehicle_.reset();
    }
}

void E2eEnvironment::StartClient() {
    client_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{{FindProgram("kelvane-client")},
                              {{"KELVANE_VI_CONFIG", directory_.File("vi-connector.ini")},
                               {"KELVANE_PHM_CONFIG", directory_.File("phm.ini")},
                               {"KELVANE_TESMO_ID_PATH", stateDir_ + "/tesmo_string.bin"},
                               {"KELVANE_LOG", "console"},
                               {"KELVANE_LOG_LEVEL", "debug"}},
                              directory_.File("client.log")});
}

int E2eEnvironment::StopClient(std::chrono::milliseconds grace) {
    if (!client_) {
        return -1;
    }
    client_->Signal(SIGTERM);
    const auto status = client_->WaitForExit(grace);
    return status.value_or(-1);
}

std::optional<int> E2eEnvironment::ClientExit(std::chrono::milliseconds timeout) {
    return client_ ? client_->WaitForExit(timeout) : std::nullopt;
}

bool E2eEnvironment::ClientRunning() {
    return client_ && client_->Running();
}

pid_t E2eEnvironment::ClientPid() const {
    return client_ ? client_->Pid() : -1;
}

void E2eEnvironment::ReplaceInConnectorConfig(const std::string& from, const std::string& to) {
    std::string text = ReadFile(directory_.File("vi-connector.ini"));
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    directory_.Write("vi-connector.ini", text);
}

std::string E2eEnvironment::WriteFile(const std::string& name, const std::string& content) const {
    return directory_.Write(name, content);
}

void E2eEnvironment::Ignition(bool on) {
    const auto [status, output] = RunTool(
        {FindProgram("kelvane-vehicle-sim"), "clamp", on ? "on" : "off", "--state", stateDir_});
    if (status != 0) {
        throw std::runtime_error("kelvane-vehicle-sim clamp failed: " + output);
    }
}

void E2eEnvironment::Push() {
    const auto [status, output] = RunTool({FindProgram("kelvane-backend-sim"), "push",
                                           "--mqtt-port", std::to_string(broker_.Port())});
    if (status != 0) {
        throw std::runtime_error("kelvane-backend-sim push failed: " + output);
    }
}

void E2eEnvironment::AddBackendFault(const std::string& definition) {
    const std::string answer = PostToBackend("/admin/fault", definition);
    if (answer.rfind("HTTP/1.1 204", 0) != 0) {
        throw std::runtime_error("adding backend fault '" + definition + "' failed: " + answer);
    }
}

std::string E2eEnvironment::PostToBackend(const std::string& path, const std::string& body) const {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(backendPort_);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        const std::string request = "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
                                    "Content-Length: " + std::to_string(body.size()) +
                                    "\r\nConnection: close\r\n\r\n" + body;
        if (::write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
            timeval timeout{5, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
            char buffer[1024];
            ssize_t count = 0;
            while ((count = ::read(fd, buffer, sizeof(buffer))) > 0) {
                answer.append(buffer, static_cast<std::size_t>(count));
            }
        }
    }
    ::close(fd);
    return answer;
}

void E2eEnvironment::VehicleService(const std::string& action, const std::string& name) {
    const auto [status, output] = RunTool(
        {FindProgram("kelvane-vehicle-sim"), "service", action, name, "--state", stateDir_});
    if (status != 0) {
        throw std::runtime_error("kelvane-vehicle-sim service " + action + " " + name +
                                 " failed: " + output);
    }
}

void E2eEnvironment::VehicleCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FindProgram("kelvane-vehicle-sim"));
    arguments.insert(arguments.end(), {"--state", stateDir_});
    const auto [status, output] = RunTool(arguments);
    if (status != 0) {
        throw std::runtime_error("kelvane-vehicle-sim failed: " + output);
    }
}

std::string E2eEnvironment::VehicleLog() const {
    return ReadFile(directory_.File("vehicle.log"));
}

std::string E2eEnvironment::ClientLog() const {
    return ReadFile(directory_.File("client.log"));
}

std::size_t E2eEnvironment::ClientLogCount(const std::string& text) const {
    return CountOccurrences(ClientLog(), text);
}

bool E2eEnvironment::WaitForClientLog(const std::string& text, std::size_t occurrences,
                                      std::chrono::milliseconds timeout) const {
    return WaitUntil([&] { return ClientLogCount(text) >= occurrences; }, timeout, 20ms);
}

std::map<std::string, std::string> E2eEnvironment::VehicleStatus() const {
    const auto [status, output] =
        RunTool({FindProgram("kelvane-vehicle-sim"), "status", "--state", stateDir_});
    // One flat JSON object: "name":value pairs, strings without escapes.
    std::map<std::string, std::string> values;
    if (status != 0) {
        return values;
    }
    std::size_t at = 0;
    while ((at = output.find('"', at)) != std::string::npos) {
        const auto nameEnd = output.find('"', at + 1);
        if (nameEnd == std::string::npos || nameEnd + 1 >= output.size() ||
            output[nameEnd + 1] != ':') {
            break;
        }
        const std::string name = output.substr(at + 1, nameEnd - at - 1);
        std::size_t valueStart = nameEnd + 2;
        std::string value;
        if (output[valueStart] == '"') {
            const auto valueEnd = output.find('"', valueStart + 1);
            value = output.substr(valueStart + 1, valueEnd - valueStart - 1);
            at = valueEnd + 1;
        } else {
            const auto valueEnd = output.find_first_of(",}", valueStart);
            value = output.substr(valueStart, valueEnd - valueStart);
            at = valueEnd;
        }
        if (value.empty() || value[0] == '[' || value[0] == '{') {
            at = output.find_first_of(",", at);  // nested values are not needed
            if (at == std::string::npos) {
                break;
            }
        }
        values[name] = value;
    }
    return values;
}

std::string E2eEnvironment::BackendEvents() const {
    return ReadFile(directory_.File("backend-events.jsonl"));
}

std::size_t E2eEnvironment::BackendEventCount(const std::string& text) const {
    return CountOccurrences(BackendEvents(), text);
}

std::string E2eEnvironment::Logs() const {
    std::string logs;
    for (const char* name : {"client.log", "vehicle.log", "backend.log", "backend-events.jsonl"}) {
        logs += "==== " + std::string(name) + " ====\n" + ReadFile(directory_.File(name));
    }
    return logs;
}

std::pair<int, std::string> E2eEnvironment::RunTool(std::vector<std::string> argv) const {
    static int counter = 0;
    const std::string output = directory_.File("tool-" + std::to_string(++counter) + ".out");
    ChildProcess tool(ChildProcess::Options{std::move(argv), {}, output});
    const auto status = tool.WaitForExit(15s);
    return {status.value_or(-1), ReadFile(output)};
}

}  // namespace kelvane::e2e
