#ifndef CSC_LOGGING_CSC_LOGGING_HPP
#define CSC_LOGGING_CSC_LOGGING_HPP

#include <string>

#include "csc_logging/csc_log_entry.hpp"
#include "csc_logging/log_level.hpp"

namespace csc_logging {

/// The platform's logging front end. Records go to the sinks chosen by
/// KELVANE_LOG (console, dlt, both, journal, none) at or above KELVANE_LOG_LEVEL
/// (default info); a LogCapture sees every record. Thread-safe: a record is
/// written whole before the next one starts.
class CSCLogging {
public:
    /// Names the application ("KV" for the client) and opens the configured sinks.
    static void InitLogging(const std::string& appId, const std::string& description = "");

    static void Verbose(const std::string& text) { Log(LogLevel::kVerbose, text); }
    static void Debug(const std::string& text) { Log(LogLevel::kDebug, text); }
    static void Info(const std::string& text) { Log(LogLevel::kInfo, text); }
    static void Warning(const std::string& text) { Log(LogLevel::kWarning, text); }
    static void Error(const std::string& text) { Log(LogLevel::kError, text); }

    static void Verbose(const CSCLogEntry& entry) { Log(LogLevel::kVerbose, entry.str()); }
    static void Debug(const CSCLogEntry& entry) { Log(LogLevel::kDebug, entry.str()); }
    static void Info(const CSCLogEntry& entry) { Log(LogLevel::kInfo, entry.str()); }
    static void Warning(const CSCLogEntry& entry) { Log(LogLevel::kWarning, entry.str()); }
    static void Error(const CSCLogEntry& entry) { Log(LogLevel::kError, entry.str()); }

    static void Log(LogLevel level, const std::string& text);
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_CSC_LOGGING_HPP
