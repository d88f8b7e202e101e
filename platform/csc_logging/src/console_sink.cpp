#include "console_sink.hpp"

#include <unistd.h>

#include <ctime>
#include <string>

#include "csc_logging/log_sink.hpp"

namespace csc_logging {

std::string FormatRecord(const LogRecord& record) {
    const auto sinceEpoch = record.time.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - seconds).count();
    const std::time_t t = static_cast<std::time_t>(seconds.count());
    std::tm utc{};
    gmtime_r(&t, &utc);
    char stamp[40];
    const auto length = std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(stamp + length, sizeof(stamp) - length, ".%03dZ", static_cast<int>(millis));

    std::string line;
    line.reserve(record.text.size() + 48);
    line.append(stamp).append(" ").append(record.appId).append(" ");
    line.append(ToString(record.level)).append(" ").append(record.text);
    return line;
}

void ConsoleSink::Write(const LogRecord& record) {
    std::string line = FormatRecord(record);
    line.push_back('\n');
    const char* data = line.data();
    std::size_t left = line.size();
    while (left > 0) {
        const ssize_t written = ::write(STDERR_FILENO, data, left);
        if (written <= 0) {
            return;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

}  // namespace csc_logging
