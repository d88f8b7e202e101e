#ifndef CSC_LOGGING_DLT_SINK_HPP
#define CSC_LOGGING_DLT_SINK_HPP

#include <memory>
#include <string>

#include "csc_logging/log_sink.hpp"

namespace csc_logging {

/// Sends records to a COVESA DLT daemon through libdlt: application id as given
/// to InitLogging, one context per process.
class DltSink : public LogSink {
public:
    DltSink(const std::string& appId, const std::string& description);
    ~DltSink() override;
    DltSink(const DltSink&) = delete;
    DltSink& operator=(const DltSink&) = delete;

    void Write(const LogRecord& record) override;

private:
    struct Context;
    std::unique_ptr<Context> context_;
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_DLT_SINK_HPP
