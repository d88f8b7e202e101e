#ifndef PROCESS_LIFECYCLE_ADAPTER_SRC_SUPERVISION_CONFIG_HPP
#define PROCESS_LIFECYCLE_ADAPTER_SRC_SUPERVISION_CONFIG_HPP

#include <chrono>
#include <optional>
#include <string>

namespace process_lifecycle_adapter {

/// The keep-alive settings of the supervision INI file (keys documented with
/// ProcessLifecycleAdapter), with the systemd watchdog taken into account.
struct SupervisionConfig {
    static constexpr std::chrono::milliseconds kDefaultPeriod{5000};
    static constexpr std::chrono::milliseconds kMinimumPeriod{10};
    static constexpr std::chrono::milliseconds kMaximumPeriod{3600000};

    std::chrono::milliseconds keepAlivePeriod = kDefaultPeriod;

    /// Reads `path`; problems are logged as warnings and replaced by defaults.
    /// `watchdogTimeout` is systemd's, when it supervises the process.
    static SupervisionConfig Load(const std::string& path,
                                  std::optional<std::chrono::microseconds> watchdogTimeout);

    /// systemd's watchdog time-out for this process (WATCHDOG_USEC, when
    /// WATCHDOG_PID is unset or names this process).
    static std::optional<std::chrono::microseconds> WatchdogTimeoutFromEnvironment();
};

}  // namespace process_lifecycle_adapter

#endif  // PROCESS_LIFECYCLE_ADAPTER_SRC_SUPERVISION_CONFIG_HPP
