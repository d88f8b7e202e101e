#include "csc_logging/log_capture.hpp"

namespace csc_logging {

LogCapture::LogCapture() {
    AddObserver(this, LogLevel::kVerbose);
}

LogCapture::~LogCapture() {
    RemoveObserver(this);
}

void LogCapture::Write(const LogRecord& record) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back(record);
    }
    changed_.notify_all();
}

std::vector<LogRecord> LogCapture::Records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

std::vector<std::string> LogCapture::Texts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> texts;
    texts.reserve(records_.size());
    for (const auto& record : records_) {
        texts.push_back(record.text);
    }
    return texts;
}

bool LogCapture::Contains(std::string_view needle) const {
    return Count(needle) > 0;
}

bool LogCapture::Contains(LogLevel level, std::string_view needle) const {
    return Count(level, needle) > 0;
}

std::size_t LogCapture::Count(std::string_view needle) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return CountLocked(needle);
}

std::size_t LogCapture::Count(LogLevel level, std::string_view needle) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t count = 0;
    for (const auto& record : records_) {
        if (record.level == level && record.text.find(needle) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

long LogCapture::IndexOf(std::string_view needle, std::size_t from) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t i = from; i < records_.size(); ++i) {
        if (records_[i].text.find(needle) != std::string::npos) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

bool LogCapture::WaitFor(std::string_view needle, std::chrono::milliseconds timeout,
                         std::size_t occurrences) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return CountLocked(needle) >= occurrences; });
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
}

std::string LogCapture::Dump() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string dump;
    for (const auto& record : records_) {
        dump.append(FormatRecord(record)).push_back('\n');
    }
    return dump;
}

std::size_t LogCapture::CountLocked(std::string_view needle) const {
    std::size_t count = 0;
    for (const auto& record : records_) {
        if (record.text.find(needle) != std::string::npos) {
            ++count;
        }
    }
    return count;
}

}  // namespace csc_logging
