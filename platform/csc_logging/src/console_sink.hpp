#ifndef CSC_LOGGING_CONSOLE_SINK_HPP
#define CSC_LOGGING_CONSOLE_SINK_HPP

#include "csc_logging/log_sink.hpp"

namespace csc_logging {

/// One line per record on stderr, written with a single write(2). When stderr
/// is the journal (JOURNAL_STREAM names its device and inode, as systemd sets
/// it), each line starts with its priority as sd-daemon(3) describes: <3>
/// error, <4> warning, <6> info, <7> debug and verbose.
class ConsoleSink : public LogSink {
public:
    ConsoleSink();

    void Write(const LogRecord& record) override;

private:
    bool toJournal_;
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_CONSOLE_SINK_HPP
