#ifndef CSC_LOGGING_LOG_CAPTURE_HPP
#define CSC_LOGGING_LOG_CAPTURE_HPP

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "csc_logging/log_sink.hpp"

namespace csc_logging {

/// Keeps every record logged while it exists, at every level, whatever the
/// configured threshold, its text escaped as every sink writes it ("\\n" for
/// a line feed). Meant for tests:
///
///     csc_logging::LogCapture log;
///     sut.Run();
///     EXPECT_TRUE(log.WaitFor("Status feedback sent successfully", 2s));
class LogCapture : public LogSink {
public:
    LogCapture();
    ~LogCapture() override;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    void Write(const LogRecord& record) override;

    std::vector<LogRecord> Records() const;
    /// The texts of all records, in order.
    std::vector<std::string> Texts() const;
    bool Contains(std::string_view needle) const;
    bool Contains(LogLevel level, std::string_view needle) const;
    std::size_t Count(std::string_view needle) const;
    std::size_t Count(LogLevel level, std::string_view needle) const;
    /// Index of the first record at or after `from` containing `needle`, or -1.
    long IndexOf(std::string_view needle, std::size_t from = 0) const;

    /// Waits until at least `occurrences` records contain `needle`; false when
    /// the time-out ran out first.
    bool WaitFor(std::string_view needle, std::chrono::milliseconds timeout,
                 std::size_t occurrences = 1) const;

    void Clear();
    /// All records, one per line, in the console format.
    std::string Dump() const;

private:
    std::size_t CountLocked(std::string_view needle) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<LogRecord> records_;
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_LOG_CAPTURE_HPP
