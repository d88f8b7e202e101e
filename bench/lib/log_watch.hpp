#ifndef BENCH_LIB_LOG_WATCH_HPP
#define BENCH_LIB_LOG_WATCH_HPP

#include <chrono>
#include <ios>
#include <string>

namespace kelvane::bench {

/// Counts the lines of a growing log file that hold a text, sleeping on
/// inotify between writes, so that waiting for a log line costs the machine
/// nothing while something else is being timed.
class LogWatch {
public:
    /// The file must exist.
    LogWatch(std::string path, std::string text);
    ~LogWatch();
    LogWatch(const LogWatch&) = delete;
    LogWatch& operator=(const LogWatch&) = delete;

    /// False when the file did not reach `lines` matching lines in time.
    bool WaitFor(long lines, std::chrono::milliseconds timeout);
    /// Matching lines seen so far.
    long Count();

private:
    void ReadNew();

    std::string path_;
    std::string text_;
    int inotify_;
    std::streamoff offset_ = 0;
    std::string partial_;
    long count_ = 0;
};

}  // namespace kelvane::bench

#endif  // BENCH_LIB_LOG_WATCH_HPP
