#include "backend_sim/event_log.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <utility>

#include "csc_logging/csc_logging.hpp"

namespace backend_sim {

std::string UtcTimestamp() {
    const auto now = std::chrono::system_clock::now();
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(millis / 1000);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    char text[32];
    const auto length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
    char result[48];
    std::snprintf(result, sizeof(result), "%.*s.%03dZ", static_cast<int>(length), text,
                  static_cast<int>(millis % 1000));
    return result;
}

bool EventLog::Open(const std::string& path, std::string& error) {
    unique_fd::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!fd) {
        error = "cannot open event log " + path + ": " + std::strerror(errno);
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    fd_ = std::move(fd);
    return true;
}

sim_common::Json EventLog::Begin() {
    return {{"time", UtcTimestamp()}, {"seq", sequence_.fetch_add(1) + 1}};
}

void EventLog::Write(const sim_common::Json& event) {
    const std::string line = sim_common::JsonText(event) + "\n";
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!fd_) {
        return;
    }
    std::size_t written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(fd_.Get(), line.data() + written, line.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            csc_logging::CSCLogging::Error(std::string("Event log write failed: ") +
                                           std::strerror(errno));
            return;
        }
        written += static_cast<std::size_t>(n);
    }
}

}  // namespace backend_sim
