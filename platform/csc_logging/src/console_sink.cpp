#include "console_sink.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "csc_logging/log_sink.hpp"
#include "syslog_priority.hpp"

namespace csc_logging {
namespace {

bool StderrIsTheJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    unsigned long long device = 0;
    unsigned long long inode = 0;
    char end = '\0';
    if (stream == nullptr || std::sscanf(stream, "%llu:%llu%c", &device, &inode, &end) != 2) {
        return false;
    }
    struct stat status {};
    return ::fstat(STDERR_FILENO, &status) == 0 &&
           static_cast<unsigned long long>(status.st_dev) == device &&
           static_cast<unsigned long long>(status.st_ino) == inode;
}

}  // namespace

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

ConsoleSink::ConsoleSink() : toJournal_(StderrIsTheJournal()) {}

void ConsoleSink::Write(const LogRecord& record) {
    std::string line =
        toJournal_ ? "<" + std::to_string(SyslogPriority(record.level)) + ">" + FormatRecord(record)
                   : FormatRecord(record);
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
