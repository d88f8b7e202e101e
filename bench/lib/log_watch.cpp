#include "log_watch.hpp"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kelvane::bench {

LogWatch::LogWatch(std::string path, std::string text)
    : path_(std::move(path)), text_(std::move(text)), inotify_(::inotify_init1(IN_CLOEXEC)) {
    // IN_MODIFY covers appends; truncation by a new writer is not expected.
    if (inotify_ < 0 || ::inotify_add_watch(inotify_, path_.c_str(), IN_MODIFY) < 0) {
        const std::string reason = std::strerror(errno);
        if (inotify_ >= 0) {
            ::close(inotify_);
        }
        throw std::runtime_error("cannot watch " + path_ + ": " + reason);
    }
}

LogWatch::~LogWatch() {
    ::close(inotify_);
}

bool LogWatch::WaitFor(long lines, std::chrono::milliseconds timeout) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;
    while (true) {
        ReadNew();
        if (count_ >= lines) {
            return true;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd descriptor{inotify_, POLLIN, 0};
        if (::poll(&descriptor, 1, static_cast<int>(left.count())) > 0) {
            char events[4096];
            [[maybe_unused]] const auto drained = ::read(inotify_, events, sizeof(events));
        }
    }
}

long LogWatch::Count() {
    ReadNew();
    return count_;
}

void LogWatch::ReadNew() {
    std::ifstream in(path_, std::ios::binary);
    in.seekg(offset_);
    std::ostringstream fresh;
    fresh << in.rdbuf();
    const std::string data = fresh.str();
    offset_ += static_cast<std::streamoff>(data.size());
    partial_ += data;
    std::size_t start = 0;
    for (std::size_t end = partial_.find('\n'); end != std::string::npos;
         end = partial_.find('\n', start)) {
        if (partial_.find(text_, start) < end) {
            ++count_;
        }
        start = end + 1;
    }
    partial_.erase(0, start);
}

}  // namespace kelvane::bench
