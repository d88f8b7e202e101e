#ifndef TESTS_E2E_E2E_ENVIRONMENT_HPP
#define TESTS_E2E_E2E_ENVIRONMENT_HPP

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "test_support/child_process.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane::e2e {

constexpr const char* kReady = "All subscriptions and connections ready";
constexpr const char* kUpdated = "DLC Update finished successfully.";
constexpr const char* kFeedbackSent = "Status feedback sent successfully";
// As long as real tokens are, so that a copy outlives malloc's reuse of a freed block's start.
constexpr const char* kToken = "e2e-bearer-token.eyJzdWIiOiJrZWx2YW5lLWNsaWVudCJ9";

/// One vehicle on one machine: a private bus, a broker, both simulators and the real client,
/// their logs printed when the test has failed. Given `tlsDirectory` (MakeTestCertificates'
/// PKI), the backend talks HTTPS with client certificates; `brokerConfig` is added to the broker's.
class E2eEnvironment {
public:
    explicit E2eEnvironment(std::string tlsDirectory = "", const std::string& brokerConfig = "");
    ~E2eEnvironment();

    void StartBackend(const std::vector<std::string>& faults = {});
    void StopBackend() { backend_->Stop(); }
    void StartVehicle();
    void StopVehicle() { vehicle_->Stop(); }
    void KillVehicle() { vehicle_.reset(); }  // SIGKILL
    void StartClient();
    testing::ChildProcess& Client() const { return *client_; }
    /// The client's core file size limits, "<soft> <hard>" as /proc/<pid>/limits shows them.
    std::string ClientCoreFileLimits() const;
    /// Whether a process of the client's user without CAP_SYS_PTRACE may inspect the client,
    /// which only a dumpable process allows.
    bool ClientOpenToItsUser() const;
    testing::MosquittoBroker& Broker() { return broker_; }
    testing::PrivateDbusDaemon& Bus() { return bus_; }

    void Ignition(bool on) { VehicleCommand({"clamp", on ? "on" : "off"}); }
    void Push();
    void AddBackendFault(const std::string& definition);
    /// `kelvane-vehicle-sim <arguments> --state DIR`; throws when it fails.
    void VehicleCommand(std::vector<std::string> arguments);
    /// Before StartClient: every `from` in the client's connector file becomes `to`.
    void ReplaceInConnectorConfig(const std::string& from, const std::string& to);
    /// Before StartClient: every transaction reads kToken from a file (0600); returns its path.
    std::string UseTokenFile();

    std::size_t ClientLogCount(const std::string& text) const;
    bool WaitForClientLog(const std::string& text, std::size_t occurrences = 1,
                          std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    /// `kelvane-vehicle-sim status`; an empty object when it fails.
    nlohmann::json VehicleStatus() const;
    std::size_t BackendEventCount(const std::string& text) const;
    std::string VehicleLog() const { return testing::ReadFile(directory_.File("vehicle.log")); }

private:
    std::string Logs() const;
    /// Runs a tool to completion and returns its output; throws when it fails, unless `tolerant`.
    std::string Run(std::vector<std::string> argv, bool tolerant = false) const;

    std::string tlsDirectory_;
    testing::TemporaryDirectory directory_;
    testing::PrivateDbusDaemon bus_;
    testing::MosquittoBroker broker_;
    std::uint16_t backendPort_;
    std::string stateDir_;
    std::unique_ptr<testing::ChildProcess> vehicle_;
    std::unique_ptr<testing::ChildProcess> backend_;
    std::unique_ptr<testing::ChildProcess> client_;
};

}  // namespace kelvane::e2e

#endif  // TESTS_E2E_E2E_ENVIRONMENT_HPP
