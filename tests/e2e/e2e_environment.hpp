#ifndef TESTS_E2E_E2E_ENVIRONMENT_HPP
#define TESTS_E2E_E2E_ENVIRONMENT_HPP

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "test_support/child_process.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane::e2e {

/// One vehicle on one machine: a private bus, a broker, the vehicle simulator,
/// the backend simulator and the real kelvane-client binary, each with its log
/// in the environment's directory. Everything is stopped on destruction.
class E2eEnvironment {
public:
    struct Options {
        int baseCertificateDays = 200;
        bool startBackend = true;
        std::vector<std::string> backendFaults;
        /// Set: HTTPS with client certificates, PKI of MakeTestCertificates here.
        std::string tlsDirectory;
    };

    E2eEnvironment();
    explicit E2eEnvironment(Options options);
    /// `brokerExtraConfig` is appended to the broker's configuration (e.g. a TLS listener).
    E2eEnvironment(Options options, const std::string& brokerExtraConfig);
    ~E2eEnvironment();

    // Processes.
    void StartBackend(const std::vector<std::string>& faults = {});
    void StopBackend();
    void StartVehicle();
    void StopVehicle();
    void StartClient();
    /// SIGTERM; the client's exit status, or -1 when it did not exit in time.
    int StopClient(std::chrono::milliseconds grace = std::chrono::seconds(5));
    /// Exit status once the client ended by itself, or nothing.
    std::optional<int> ClientExit(std::chrono::milliseconds timeout);
    bool ClientRunning();
    /// The client's process id, -1 when it has not been started.
    pid_t ClientPid() const;
    testing::MosquittoBroker& Broker() { return broker_; }
    testing::PrivateDbusDaemon& Bus() { return bus_; }
    /// SIGKILL: the simulator gets no chance to tidy up.
    void KillVehicle();

    // What a person would do.
    void Ignition(bool on);
    void Push();
    void AddBackendFault(const std::string& definition);
    void VehicleService(const std::string& action, const std::string& name);
    /// Edits the client's connector file (before StartClient): every `from` becomes `to`.
    void ReplaceInConnectorConfig(const std::string& from, const std::string& to);
    /// Writes a file into the environment's directory; returns its path.
    std::string WriteFile(const std::string& name, const std::string& content) const;
    /// `kelvane-vehicle-sim <arguments> --state DIR`; throws when it fails.
    void VehicleCommand(std::vector<std::string> arguments);

    // What a person would look at.
    std::string ClientLog() const;
    std::size_t ClientLogCount(const std::string& text) const;
    /// Waits until the client's log holds `text` at least `occurrences` times.
    bool WaitForClientLog(const std::string& text, std::size_t occurrences = 1,
                          std::chrono::milliseconds timeout = std::chrono::seconds(20)) const;
    /// `kelvane-vehicle-sim status` as key/value pairs.
    std::map<std::string, std::string> VehicleStatus() const;
    std::string BackendEvents() const;
    std::string VehicleLog() const;
    std::size_t BackendEventCount(const std::string& text) const;
    /// Every process's log, for a failing test's output.
    std::string Logs() const;
    const std::string& StateDirectory() const { return stateDir_; }

private:
    /// The raw answer of an HTTP POST to the backend simulator.
    std::string PostToBackend(const std::string& path, const std::string& body) const;
    /// Runs a command-line tool to completion; its exit status and output.
    std::pair<int, std::string> RunTool(std::vector<std::string> argv) const;

    Options options_;
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
