#include "log_dispatcher.hpp"

#include <algorithm>
#include <chrono>

#include "console_sink.hpp"

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

void LogDispatcher::AddCapture(LogSink* capture) {
    std::lock_guard<std::mutex> lock(mutex_);
    captures_.push_back(capture);
    captureCount_.store(static_cast<int>(captures_.size()));
}

void LogDispatcher::RemoveCapture(LogSink* capture) {
    std::lock_guard<std::mutex> lock(mutex_);
    captures_.erase(std::remove(captures_.begin(), captures_.end(), capture), captures_.end());
    captureCount_.store(static_cast<int>(captures_.size()));
}

void LogDispatcher::Dispatch(LogLevel level, const std::string& text) {
    LogRecord record{std::chrono::system_clock::now(), level, {}, text};
    std::lock_guard<std::mutex> lock(mutex_);
    record.appId = appId_;
    if (level >= threshold_.load()) {
        for (auto& sink : sinks_) {
            sink->Write(record);
        }
    }
    for (auto* capture : captures_) {
        capture->Write(record);
    }
}

}  // namespace csc_logging
