#ifndef CSC_LOGGING_CONSOLE_SINK_HPP
#define CSC_LOGGING_CONSOLE_SINK_HPP

#include "csc_logging/log_sink.hpp"

namespace csc_logging {

/// One line per record on stderr, written with a single write(2).
class ConsoleSink : public LogSink {
public:
    void Write(const LogRecord& record) override;
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_CONSOLE_SINK_HPP
