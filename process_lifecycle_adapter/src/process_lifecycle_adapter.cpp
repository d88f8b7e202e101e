#include "process_lifecycle_adapter/process_lifecycle_adapter.hpp"

#include <csignal>
#include <cstdlib>

#include "ara/exec/execution_client.h"
#include "ara/phm/supervised_entity.h"
#include "csc_logging/csc_logging.hpp"
#include "signal_handler/signal_handler.hpp"
#include "supervision_config.hpp"

namespace process_lifecycle_adapter {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

// The supervised entity's checkpoints.
enum class KeepAliveCheckpoint : std::uint32_t { kAlive = 1 };

}  // namespace

std::string ProcessLifecycleAdapter::ConfigPath(const std::string& componentName) {
    const char* overridden = std::getenv("KELVANE_PHM_CONFIG");
    if (overridden != nullptr && *overridden != '\0') {
        return overridden;
    }
    return "/etc/" + componentName + "-phm.ini";
}

ProcessLifecycleAdapter::ProcessLifecycleAdapter(const std::string& componentName,
                                                 ProcessLifecycleAdapterCallbackIf* callback)
    : ProcessLifecycleAdapter(componentName, callback, ConfigPath(componentName)) {}

ProcessLifecycleAdapter::ProcessLifecycleAdapter(const std::string& componentName,
                                                 ProcessLifecycleAdapterCallbackIf* callback,
                                                 const std::string& configPath)
    : callback_(callback)
    , keepAlivePeriod_(
          SupervisionConfig::Load(configPath, SupervisionConfig::WatchdogTimeoutFromEnvironment())
              .keepAlivePeriod)
    , executionClient_(std::make_unique<ara::exec::ExecutionClient>())
    , supervisedEntity_(
          std::make_unique<ara::phm::SupervisedEntity>(componentName + "/KeepAlive")) {
    if (callback_ == nullptr) {
        CSCLogging::Error(
            "ProcessLifecycleAdapter: no callback, termination requests and health "
            "status cannot be passed on");
    }
    // Termination requests are caught before the platform learns that we run.
    signalHandler_ = std::make_unique<signal_handler::SignalHandler>(
        [this](int signal) { OnTerminationSignal(signal); }, std::vector<int>{SIGTERM, SIGINT});
    keepAliveThread_ = std::thread(&ProcessLifecycleAdapter::KeepAlive, this);
    if (executionClient_->ReportExecutionState(ara::exec::ExecutionState::kRunning) !=
        ara::exec::ExecutionReturnType::kSuccess) {
        CSCLogging::Error("ProcessLifecycleAdapter: cannot report execution state Running");
    }
    CSCLogging::Info(CSCLogEntry()
                     << "ProcessLifecycleAdapter: " << componentName
                     << " running, keep-alive every " << keepAlivePeriod_.count() << " ms");
}

ProcessLifecycleAdapter::~ProcessLifecycleAdapter() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    stopCv_.notify_all();
    keepAliveThread_.join();
    // Joins the signal thread: no callback runs once we are gone.
    signalHandler_.reset();
    ReportTerminating();
}

void ProcessLifecycleAdapter::OnTerminationSignal(int signal) {
    if (!ReportTerminating()) {
        CSCLogging::Debug(CSCLogEntry() << "ProcessLifecycleAdapter: signal " << signal
                                        << " ignored, already terminating");
        return;
    }
    CSCLogging::Info(CSCLogEntry()
                     << "ProcessLifecycleAdapter: termination requested by signal " << signal);
    if (callback_ != nullptr) {
        callback_->ProcessLifecycleAdapterTerminate();
    }
}

bool ProcessLifecycleAdapter::ReportTerminating() {
    if (terminating_.exchange(true)) {
        return false;
    }
    if (executionClient_->ReportExecutionState(ara::exec::ExecutionState::kTerminating) !=
        ara::exec::ExecutionReturnType::kSuccess) {
        CSCLogging::Error("ProcessLifecycleAdapter: cannot report execution state Terminating");
    }
    return true;
}

void ProcessLifecycleAdapter::KeepAlive() {
    bool healthy = true;
    std::unique_lock<std::mutex> lock(mutex_);
    auto next = std::chrono::steady_clock::now() + keepAlivePeriod_;
    while (!stopCv_.wait_until(lock, next, [this] { return stopping_; })) {
        lock.unlock();
        const std::uint8_t status =
            callback_ != nullptr ? callback_->ProcessLifecycleAdapterGetHealthStatus() : 0;
        if (status == 0) {
            supervisedEntity_->ReportCheckpoint(KeepAliveCheckpoint::kAlive);
            if (!healthy) {
                CSCLogging::Info("ProcessLifecycleAdapter: healthy again, alive reports resumed");
            }
        } else if (healthy) {
            CSCLogging::Warning(CSCLogEntry() << "ProcessLifecycleAdapter: health status " << status
                                              << ", alive reports withheld");
        }
        healthy = status == 0;
        lock.lock();
        // After a stall (suspend, slow callback) carry on from now instead of
        // catching up with a burst of reports.
        next += keepAlivePeriod_;
        const auto now = std::chrono::steady_clock::now();
        if (next <= now) {
            next = now + keepAlivePeriod_;
        }
    }
}

}  // namespace process_lifecycle_adapter
