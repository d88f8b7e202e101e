#include "supervision_config.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "csc_logging/csc_logging.hpp"
#include "ini_file_reader/ini_file_reader.hpp"

namespace process_lifecycle_adapter {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

constexpr char kSection[] = "supervision";
constexpr char kPeriodKey[] = "keep_alive_period_ms";

// A whole decimal number without sign or trailing text.
std::optional<unsigned long long> ParseUnsigned(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 18) {
        return std::nullopt;
    }
    return std::strtoull(text.c_str(), nullptr, 10);
}

}  // namespace

std::optional<std::chrono::microseconds> SupervisionConfig::WatchdogTimeoutFromEnvironment() {
    const char* usec = std::getenv("WATCHDOG_USEC");
    if (usec == nullptr) {
        return std::nullopt;
    }
    if (const char* pid = std::getenv("WATCHDOG_PID")) {
        const auto owner = ParseUnsigned(pid);
        if (!owner || *owner != static_cast<unsigned long long>(getpid())) {
            return std::nullopt;
        }
    }
    const auto value = ParseUnsigned(usec);
    if (!value || *value == 0) {
        return std::nullopt;
    }
    return std::chrono::microseconds(*value);
}

SupervisionConfig SupervisionConfig::Load(
    const std::string& path, std::optional<std::chrono::microseconds> watchdogTimeout) {
    SupervisionConfig config;
    // systemd must hear from us at least twice per time-out.
    std::optional<std::chrono::milliseconds> watchdogLimit;
    if (watchdogTimeout) {
        watchdogLimit =
            std::max(kMinimumPeriod,
                     std::chrono::duration_cast<std::chrono::milliseconds>(*watchdogTimeout / 2));
        config.keepAlivePeriod = *watchdogLimit;
    }

    if (access(path.c_str(), R_OK) != 0) {
        CSCLogging::Warning(CSCLogEntry()
                            << "ProcessLifecycleAdapter: cannot read supervision configuration "
                            << path << " (" << std::strerror(errno)
                            << "), using defaults: keep-alive every "
                            << config.keepAlivePeriod.count() << " ms");
        return config;
    }
    ini_file_reader::IniFileReader ini;
    ini.Load(path);
    for (const auto& error : ini.Errors()) {
        CSCLogging::Warning(CSCLogEntry() << "ProcessLifecycleAdapter: " << error);
    }
    for (const auto& key : ini.Keys(kSection)) {
        if (key != kPeriodKey) {
            CSCLogging::Warning(CSCLogEntry()
                                << "ProcessLifecycleAdapter: " << path << ": unknown key ["
                                << kSection << "] " << key << " ignored");
        }
    }

    if (const auto text = ini.Get(kSection, kPeriodKey)) {
        const auto value = ParseUnsigned(*text);
        if (!value || *value < static_cast<unsigned long long>(kMinimumPeriod.count()) ||
            *value > static_cast<unsigned long long>(kMaximumPeriod.count())) {
            CSCLogging::Warning(CSCLogEntry()
                                << "ProcessLifecycleAdapter: " << path << ": " << kPeriodKey << "="
                                << *text << " is not a number from " << kMinimumPeriod.count()
                                << " to " << kMaximumPeriod.count() << ", using "
                                << config.keepAlivePeriod.count());
        } else if (watchdogLimit && std::chrono::milliseconds(*value) > *watchdogLimit) {
            CSCLogging::Warning(
                CSCLogEntry()
                << "ProcessLifecycleAdapter: " << path << ": " << kPeriodKey << "=" << *text
                << " is too long for the watchdog time-out of "
                << std::chrono::duration_cast<std::chrono::milliseconds>(*watchdogTimeout).count()
                << " ms, using " << watchdogLimit->count());
        } else {
            config.keepAlivePeriod = std::chrono::milliseconds(*value);
        }
    }
    return config;
}

}  // namespace process_lifecycle_adapter
