#include "log_dispatcher.hpp"

#include <algorithm>
#include <chrono>

#include "console_sink.hpp"
#include "escape_control_bytes.hpp"

namespace csc_logging {

LogDispatcher& LogDispatcher::Instance() {
    // Never destroyed: threads may still log while static objects are torn down.
    static auto* instance = new LogDispatcher();
    return *instance;
}

LogDispatcher::LogDispatcher() : appId_("----") {
    sinks_.push_back(std::make_unique<ConsoleSink>());
}

void LogDispatcher::Configure(std::string appId, std::vector<std::unique_ptr<LogSink>> sinks,
                              LogLevel threshold) {
    std::lock_guard<std::mutex> lock(mutex_);
    appId_ = std::move(appId);
    sinks_ = std::move(sinks);
    threshold_.store(threshold);
}

void LogDispatcher::AddObserver(LogSink* observer, LogLevel lowest) {
    std::lock_guard<std::mutex> lock(mutex_);
    observers_.emplace_back(observer, lowest);
    UpdateObserverFloorLocked();
}

void LogDispatcher::RemoveObserver(LogSink* observer) {
    std::lock_guard<std::mutex> lock(mutex_);
    observers_.erase(
        std::remove_if(observers_.begin(), observers_.end(),
                       [observer](const auto& entry) { return entry.first == observer; }),
        observers_.end());
    UpdateObserverFloorLocked();
}

void LogDispatcher::UpdateObserverFloorLocked() {
    int floor = kNoObserver;
    for (const auto& [observer, lowest] : observers_) {
        floor = std::min(floor, static_cast<int>(lowest));
    }
    observerFloor_.store(floor);
}

void LogDispatcher::Dispatch(LogLevel level, const std::string& text) {
    LogRecord record{std::chrono::system_clock::now(), level, {}, text};
    EscapeControlBytes(record.text);
    std::lock_guard<std::mutex> lock(mutex_);
    record.appId = appId_;
    if (level >= threshold_.load()) {
        for (auto& sink : sinks_) {
            sink->Write(record);
        }
    }
    for (const auto& [observer, lowest] : observers_) {
        if (level >= lowest) {
            observer->Write(record);
        }
    }
}

void AddObserver(LogSink* observer, LogLevel lowest) {
    LogDispatcher::Instance().AddObserver(observer, lowest);
}

void RemoveObserver(LogSink* observer) {
    LogDispatcher::Instance().RemoveObserver(observer);
}

}  // namespace csc_logging
