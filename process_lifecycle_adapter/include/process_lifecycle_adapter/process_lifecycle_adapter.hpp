#ifndef PROCESS_LIFECYCLE_ADAPTER_PROCESS_LIFECYCLE_ADAPTER_HPP
#define PROCESS_LIFECYCLE_ADAPTER_PROCESS_LIFECYCLE_ADAPTER_HPP

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "process_lifecycle_adapter/process_lifecycle_adapter_callback_if.hpp"

namespace ara::exec {
class ExecutionClient;
}
namespace ara::phm {
class SupervisedEntity;
}
namespace signal_handler {
class SignalHandler;
}

namespace process_lifecycle_adapter {

/// Ties the process to the platform's lifecycle for as long as it exists:
/// - reports the execution state Running to execution management;
/// - turns SIGTERM and SIGINT into one termination request: the state
///   Terminating is reported and ProcessLifecycleAdapterTerminate() called;
/// - runs a keep-alive thread that asks ProcessLifecycleAdapterGetHealthStatus()
///   once per period and reports the alive checkpoint while it returns 0.
///
/// The keep-alive period comes from the supervision configuration, an INI file:
///
///     [supervision]
///     # Keep-alive period in milliseconds (10 to 3600000). Default: half the
///     # systemd watchdog time-out (WATCHDOG_USEC) when there is one, else 5000.
///     # Capped at half the watchdog time-out.
///     keep_alive_period_ms = 5000
///
/// A missing or unreadable file means the defaults and one warning.
///
/// Destruction stops the keep-alive at once and, unless termination was already
/// reported, reports it.
class ProcessLifecycleAdapter {
public:
    /// Reads the supervision configuration from ConfigPath(componentName).
    ProcessLifecycleAdapter(const std::string& componentName,
                            ProcessLifecycleAdapterCallbackIf* callback);
    ProcessLifecycleAdapter(const std::string& componentName,
                            ProcessLifecycleAdapterCallbackIf* callback,
                            const std::string& configPath);
    virtual ~ProcessLifecycleAdapter();
    ProcessLifecycleAdapter(const ProcessLifecycleAdapter&) = delete;
    ProcessLifecycleAdapter& operator=(const ProcessLifecycleAdapter&) = delete;

    /// "/etc/" + componentName + "-phm.ini"; KELVANE_PHM_CONFIG, when set,
    /// names another file (for development hosts).
    static std::string ConfigPath(const std::string& componentName);

    std::chrono::milliseconds KeepAlivePeriod() const { return keepAlivePeriod_; }

private:
    void OnTerminationSignal(int signal);
    void KeepAlive();
    /// Reports Terminating the first time; false when that was done already.
    bool ReportTerminating();

    ProcessLifecycleAdapterCallbackIf* const callback_;
    std::chrono::milliseconds keepAlivePeriod_;
    std::unique_ptr<ara::exec::ExecutionClient> executionClient_;
    std::unique_ptr<ara::phm::SupervisedEntity> supervisedEntity_;
    std::atomic<bool> terminating_{false};

    std::mutex mutex_;
    std::condition_variable stopCv_;
    bool stopping_ = false;
    std::thread keepAliveThread_;
    std::unique_ptr<signal_handler::SignalHandler> signalHandler_;
};

}  // namespace process_lifecycle_adapter

#endif  // PROCESS_LIFECYCLE_ADAPTER_PROCESS_LIFECYCLE_ADAPTER_HPP
