#ifndef CSC_LOGGING_LOG_SINK_HPP
#define CSC_LOGGING_LOG_SINK_HPP

#include <chrono>
#include <string>

#include "csc_logging/log_level.hpp"

namespace csc_logging {

struct LogRecord {
    std::chrono::system_clock::time_point time;
    LogLevel level;
    std::string appId;
    /// Control bytes and backslashes escaped (\r, \n, \x1b, \\): one line, whatever was logged.
    std::string text;
};

/// Where records end up. Write is called with the dispatcher's lock held, so a
/// sink never sees two records at once.
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void Write(const LogRecord& record) = 0;
};

/// Lets `observer` see every record at `lowest` or above, whatever KELVANE_LOG_LEVEL
/// says, until RemoveObserver: test captures, the service manager's status line.
/// Write is called with the logging lock held, so an observer must not log.
void AddObserver(LogSink* observer, LogLevel lowest);
void RemoveObserver(LogSink* observer);

/// Renders a record as the console sink does: UTC time with milliseconds, app id, level, text.
std::string FormatRecord(const LogRecord& record);

}  // namespace csc_logging

#endif  // CSC_LOGGING_LOG_SINK_HPP
