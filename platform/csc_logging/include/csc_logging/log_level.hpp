#ifndef CSC_LOGGING_LOG_LEVEL_HPP
#define CSC_LOGGING_LOG_LEVEL_HPP

#include <cstdint>
#include <optional>
#include <string_view>

namespace csc_logging {

enum class LogLevel : std::uint8_t {
    kVerbose = 0,
    kDebug = 1,
    kInfo = 2,
    kWarning = 3,
    kError = 4
};

/// Lower-case name as printed on the console ("verbose" ... "error").
std::string_view ToString(LogLevel level);

/// Parses the names accepted by KELVANE_LOG_LEVEL; "warn" is accepted for "warning".
std::optional<LogLevel> ParseLogLevel(std::string_view name);

}  // namespace csc_logging

#endif  // CSC_LOGGING_LOG_LEVEL_HPP
