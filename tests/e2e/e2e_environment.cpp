#include "e2e_environment.hpp"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <regex>
#include <stdexcept>
#include <thread>

#include "test_support/loopback.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::FindProgram;
using testing::ReadFile;
using testing::WaitUntil;

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

E2eEnvironment::E2eEnvironment(std::string tlsDirectory, const std::string& brokerConfig)
    : tlsDirectory_(std::move(tlsDirectory))
    , broker_(brokerConfig)
    , backendPort_(testing::FreeTcpPort())
    , stateDir_(directory_.File("vehicle")) {
    // An expiring Base certificate: the first ignition starts an update.
    Run({FindProgram("kelvane-vehicle-sim"), "init", "--state", stateDir_, "--base-cert-days",
         "200", "--secret", kSecret});
    const std::string& pki = tlsDirectory_;
    const std::string base =
        (pki.empty() ? "http://127.0.0.1:" : "https://127.0.0.1:") + std::to_string(backendPort_);
    std::string config = pki.empty() ? ""
                                     : "[backend_tls]\nca_file = " + pki + "/ca.pem\n" +
                                           "cert_file = " + pki + "/client.pem\n" +
                                           "key_file = " + pki + "/client.key\n";
    config +=
        "[mqtt]\nhost = 127.0.0.1\nport = " + std::to_string(broker_.Port()) +
        "\nclient_id = kelvane-client-e2e\nkeep_alive = 10\n"
        "reconnect_delay_min_ms = 100\nreconnect_delay_max_ms = 1000\n"
        "[connection_state]\nmode = probe\nprobe_interval_ms = 200\nprobe_retry_min_ms = 100\n"
        "probe_retry_max_ms = 400\nprobe_timeout_ms = 500\n";
    const std::pair<const char*, const char*> exchanges[] = {
        {"Challenge", "challenge"}, {"Download", "download"}, {"StatusFeedback", "feedback"}};
    for (const auto& [exchange, path] : exchanges) {
        config += std::string("[transaction TTVI-Kelvane-C003.COzelkDlc") + exchange +
                  "]\nurl = " + base + "/zelk/dlc/" + path + "\ntoken = " + kToken + "\n";
    }
    directory_.Write("vi-connector.ini", config);
    directory_.Write("phm.ini", "[supervision]\nkeep_alive_period_ms = 1000\n");
    StartVehicle();
    StartBackend();
}

E2eEnvironment::~E2eEnvironment() {
    if (::testing::Test::HasFailure()) {
        std::cout << Logs();
    }
}

void E2eEnvironment::StartBackend(const std::vector<std::string>& faults) {
    std::vector<std::string> argv = {FindProgram("kelvane-backend-sim"), "run", "--port",
                                     std::to_string(backendPort_)};
    argv.insert(argv.end(), {"--event-log", directory_.File("backend-events.jsonl")});
    argv.insert(argv.end(), {"--token", kToken, "--secret", kSecret, "--mqtt-port",
                             std::to_string(broker_.Port())});
    if (const auto& pki = tlsDirectory_; !pki.empty()) {
        argv.insert(argv.end(), {"--tls-cert", pki + "/server.pem", "--tls-key",
                                 pki + "/server.key", "--tls-client-ca", pki + "/ca.pem"});
    }
    for (const auto& fault : faults) {
        argv.insert(argv.end(), {"--fault", fault});
    }
    backend_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{argv, {}, directory_.File("backend.log")});
    if (!WaitUntil([this] { return testing::AcceptsConnections(backendPort_); }, 10s)) {
        throw std::runtime_error("backend simulator did not come up: " + Logs());
    }
}

void E2eEnvironment::StartVehicle() {
    vehicle_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{{FindProgram("kelvane-vehicle-sim"), "run", "--state", stateDir_},
                              {{"KELVANE_LOG", "console"}},
                              directory_.File("vehicle.log")});
    if (!WaitUntil(
            [this] { return VehicleStatus().dump().find("\"running\":true") != std::string::npos; },
            10s, 50ms)) {
        throw std::runtime_error("vehicle simulator did not come up: " + Logs());
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

std::string E2eEnvironment::ClientCoreFileLimits() const {
    const auto limits = ReadFile("/proc/" + std::to_string(client_->Pid()) + "/limits");
    std::smatch match;
    return std::regex_search(limits, match, std::regex("Max core file size +(\\S+) +(\\S+)"))
               ? match[1].str() + " " + match[2].str()
               : "";
}

bool E2eEnvironment::ClientOpenToItsUser() const {
    const pid_t pid = client_->Pid();
    int result = 0;  // 0: open, EPERM: closed, else why the probe did not work
    // Capabilities belong to a thread: this one alone drops CAP_SYS_PTRACE from its effective
    // set, then asks for the client's robust futex list, which only a dumpable process shows.
    std::thread([&] {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
        void* head = nullptr;
        std::size_t length = 0;
        if (syscall(SYS_capget, &header, data) != 0) {
            result = errno;
            return;
        }
        data[CAP_SYS_PTRACE / 32].effective &= ~(1U << (CAP_SYS_PTRACE % 32));
        // Dropping an effective capability never fails with EPERM.
        if (syscall(SYS_capset, &header, data) != 0 ||
            syscall(SYS_get_robust_list, pid, &head, &length) != 0) {
            result = errno;
        }
    }).join();
    if (result != 0 && result != EPERM) {
        throw std::runtime_error(std::string("cannot probe the client's dumpable flag: ") +
                                 std::strerror(result));
    }
    return result == 0;
}

void E2eEnvironment::Push() {
    Run({FindProgram("kelvane-backend-sim"), "push", "--mqtt-port",
         std::to_string(broker_.Port())});
}

void E2eEnvironment::AddBackendFault(const std::string& definition) {
    // bash's /dev/tcp: one plain HTTP request to the simulator's admin endpoint.
    const auto answer =
        Run({"/bin/bash", "-c",
             "exec 3<>/dev/tcp/127.0.0.1/$1 && printf 'POST /admin/fault HTTP/1.1\\r\\nHost: "
             "127.0.0.1\\r\\nContent-Length: %d\\r\\nConnection: close\\r\\n\\r\\n%s' ${#2} \"$2\" "
             ">&3 && head -c 12 <&3",
             "bash", std::to_string(backendPort_), definition},
            true);
    if (answer != "HTTP/1.1 204") {
        throw std::runtime_error("adding backend fault '" + definition + "' failed: " + answer);
    }
}

void E2eEnvironment::VehicleCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FindProgram("kelvane-vehicle-sim"));
    arguments.insert(arguments.end(), {"--state", stateDir_});
    Run(std::move(arguments));
}

void E2eEnvironment::ReplaceInConnectorConfig(const std::string& from, const std::string& to) {
    std::string text = ReadFile(directory_.File("vi-connector.ini"));
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    directory_.Write("vi-connector.ini", text);
}

std::string E2eEnvironment::UseTokenFile() {
    const std::string tokenFile = directory_.Write("backend.token", std::string(kToken) + "\n");
    ::chmod(tokenFile.c_str(), 0600);
    ReplaceInConnectorConfig(std::string("token = ") + kToken, "token_file = " + tokenFile);
    return tokenFile;
}

std::size_t E2eEnvironment::ClientLogCount(const std::string& text) const {
    return CountOccurrences(ReadFile(directory_.File("client.log")), text);
}

bool E2eEnvironment::WaitForClientLog(const std::string& text, std::size_t occurrences,
                                      std::chrono::milliseconds timeout) const {
    return WaitUntil([&] { return ClientLogCount(text) >= occurrences; }, timeout, 20ms);
}

nlohmann::json E2eEnvironment::VehicleStatus() const {
    const auto json = nlohmann::json::parse(
        Run({FindProgram("kelvane-vehicle-sim"), "status", "--state", stateDir_}, true), nullptr,
        false);
    return json.is_object() ? json : nlohmann::json::object();
}

std::size_t E2eEnvironment::BackendEventCount(const std::string& text) const {
    return CountOccurrences(ReadFile(directory_.File("backend-events.jsonl")), text);
}

std::string E2eEnvironment::Logs() const {
    std::string logs;
    for (const char* name : {"client.log", "vehicle.log", "backend.log", "backend-events.jsonl"}) {
        logs += "==== " + std::string(name) + " ====\n" + ReadFile(directory_.File(name));
    }
    return logs;
}

std::string E2eEnvironment::Run(std::vector<std::string> argv, bool tolerant) const {
    static int counter = 0;
    const std::string output = directory_.File("tool-" + std::to_string(++counter) + ".out");
    ChildProcess tool(ChildProcess::Options{argv, {}, output});
    if (tool.WaitForExit(15s) != 0 && !tolerant) {
        throw std::runtime_error(argv[0] + " " + argv[1] + " failed: " + ReadFile(output));
    }
    return ReadFile(output);
}

}  // namespace kelvane::e2e
