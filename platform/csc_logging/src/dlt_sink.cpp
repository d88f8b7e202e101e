#include "dlt_sink.hpp"

#include <dlt/dlt.h>

namespace csc_logging {
namespace {

// Without a daemon libdlt would hold process exit for ~10 s trying to flush.
constexpr std::uint32_t kExitFlushTimeoutMs = 500;

DltLogLevelType ToDlt(LogLevel level) {
    switch (level) {
        case LogLevel::kVerbose:
            return DLT_LOG_VERBOSE;
        case LogLevel::kDebug:
            return DLT_LOG_DEBUG;
        case LogLevel::kInfo:
            return DLT_LOG_INFO;
        case LogLevel::kWarning:
            return DLT_LOG_WARN;
        case LogLevel::kError:
            return DLT_LOG_ERROR;
    }
    return DLT_LOG_INFO;
}

}  // namespace

struct DltSink::Context {
    DltContext handle{};
};

DltSink::DltSink(const std::string& appId, const std::string& description)
    : context_(std::make_unique<Context>()) {
    dlt_set_resend_timeout_atexit(kExitFlushTimeoutMs);
    dlt_register_app(appId.c_str(), description.c_str());
    const std::string contextId = appId.substr(0, 2) + "CL";
    dlt_register_context(&context_->handle, contextId.c_str(), "kelvane client");
}

DltSink::~DltSink() {
    dlt_unregister_context(&context_->handle);
    dlt_unregister_app();
}

void DltSink::Write(const LogRecord& record) {
    dlt_log_string(&context_->handle, ToDlt(record.level), record.text.c_str());
}

}  // namespace csc_logging
