#include "csc_logging/log_level.hpp"

namespace csc_logging {

std::string_view ToString(LogLevel level) {
    switch (level) {
        case LogLevel::kVerbose:
            return "verbose";
        case LogLevel::kDebug:
            return "debug";
        case LogLevel::kInfo:
            return "info";
        case LogLevel::kWarning:
            return "warning";
        case LogLevel::kError:
            return "error";
    }
    return "unknown";
}

std::optional<LogLevel> ParseLogLevel(std::string_view name) {
    if (name == "verbose")
        return LogLevel::kVerbose;
    if (name == "debug")
        return LogLevel::kDebug;
    if (name == "info")
        return LogLevel::kInfo;
    if (name == "warning" || name == "warn")
        return LogLevel::kWarning;
    if (name == "error")
        return LogLevel::kError;
    return std::nullopt;
}

}  // namespace csc_logging
