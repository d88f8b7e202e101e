#ifndef CSC_LOGGING_JOURNAL_SINK_HPP
#define CSC_LOGGING_JOURNAL_SINK_HPP

#include <string>

#include "console_sink.hpp"
#include "csc_logging/log_sink.hpp"

namespace csc_logging {

/// Sends records to systemd's journal as structured entries: MESSAGE,
/// PRIORITY, SYSLOG_IDENTIFIER (the program's name) and, for the story lines
/// an operator keys on, a fixed MESSAGE_ID (csc_logging/story_line.hpp). A
/// record the journal does not take goes to the console instead, so that none
/// is lost while journald restarts.
class JournalSink : public LogSink {
public:
    /// Where journald listens; without it there is no journal to log to.
    static constexpr const char* kSocket = "/run/systemd/journal/socket";

    JournalSink();

    void Write(const LogRecord& record) override;

private:
    std::string identifier_;
    ConsoleSink fallback_;
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_JOURNAL_SINK_HPP
