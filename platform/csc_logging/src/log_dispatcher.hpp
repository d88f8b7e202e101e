#ifndef CSC_LOGGING_LOG_DISPATCHER_HPP
#define CSC_LOGGING_LOG_DISPATCHER_HPP

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "csc_logging/log_sink.hpp"

namespace csc_logging {

/// Process-wide fan-out of records to the configured sinks and to observers.
class LogDispatcher {
public:
    static LogDispatcher& Instance();

    /// Replaces the configured sinks (console, DLT, journal) and the threshold that applies to
    /// them.
    void Configure(std::string appId, std::vector<std::unique_ptr<LogSink>> sinks,
                   LogLevel threshold);
    void AddObserver(LogSink* observer, LogLevel lowest);
    void RemoveObserver(LogSink* observer);

    /// Cheap check before formatting a record.
    bool IsEnabled(LogLevel level) const {
        return level >= threshold_.load(std::memory_order_relaxed) ||
               static_cast<int>(level) >= observerFloor_.load(std::memory_order_relaxed);
    }
    /// Every sink and observer gets the record with its control bytes escaped,
    /// so that no text can start a line of its own.
    void Dispatch(LogLevel level, const std::string& text);

private:
    LogDispatcher();
    void UpdateObserverFloorLocked();

    static constexpr int kNoObserver = 256;

    std::mutex mutex_;
    std::string appId_;
    std::vector<std::unique_ptr<LogSink>> sinks_;
    std::vector<std::pair<LogSink*, LogLevel>> observers_;
    std::atomic<LogLevel> threshold_{LogLevel::kInfo};
    // The lowest level any observer wants; kNoObserver while there is none.
    std::atomic<int> observerFloor_{kNoObserver};
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_LOG_DISPATCHER_HPP
