#ifndef CSC_LOGGING_LOG_DISPATCHER_HPP
#define CSC_LOGGING_LOG_DISPATCHER_HPP

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "csc_logging/log_sink.hpp"

namespace csc_logging {

/// Process-wide fan-out of records to the configured sinks and to captures.
class LogDispatcher {
public:
    static LogDispatcher& Instance();

    /// Replaces the configured sinks (console, DLT) and the threshold that applies to them.
    void Configure(std::string appId, std::vector<std::unique_ptr<LogSink>> sinks,
                   LogLevel threshold);
    void AddCapture(LogSink* capture);
    void RemoveCapture(LogSink* capture);

    /// Cheap check before formatting a record.
    bool IsEnabled(LogLevel level) const {
        return level >= threshold_.load(std::memory_order_relaxed) ||
               captureCount_.load(std::memory_order_relaxed) > 0;
    }
    void Dispatch(LogLevel level, const std::string& text);

private:
    LogDispatcher();

    std::mutex mutex_;
    std::string appId_;
    std::vector<std::unique_ptr<LogSink>> sinks_;
    std::vector<LogSink*> captures_;
    std::atomic<LogLevel> threshold_{LogLevel::kInfo};
    std::atomic<int> captureCount_{0};
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_LOG_DISPATCHER_HPP
