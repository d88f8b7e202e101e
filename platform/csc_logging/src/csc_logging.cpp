#include "csc_logging/csc_logging.hpp"

#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include "console_sink.hpp"
#include "log_dispatcher.hpp"
#ifdef KELVANE_WITH_DLT
#include "dlt_sink.hpp"
#endif

namespace csc_logging {
namespace {

std::string_view Environment(const char* name, std::string_view fallback) {
    const char* value = std::getenv(name);
    return (value != nullptr && *value != '\0') ? std::string_view(value) : fallback;
}

}  // namespace

void CSCLogging::InitLogging(const std::string& appId, const std::string& description) {
    std::vector<std::string> problems;

    const std::string_view levelName = Environment("KELVANE_LOG_LEVEL", "info");
    auto threshold = ParseLogLevel(levelName);
    if (!threshold) {
        problems.push_back("KELVANE_LOG_LEVEL='" + std::string(levelName) +
                           "' is not one of verbose, debug, info, warning, error; using info");
        threshold = LogLevel::kInfo;
    }

    const std::string_view sinkName = Environment("KELVANE_LOG", "console");
    const bool console = sinkName == "console" || sinkName == "both";
    const bool dlt = sinkName == "dlt" || sinkName == "both";
    if (!console && !dlt && sinkName != "none") {
        problems.push_back("KELVANE_LOG='" + std::string(sinkName) +
                           "' is not one of console, dlt, both, none; using console");
    }

    std::vector<std::unique_ptr<LogSink>> sinks;
    if (console || (!dlt && sinkName != "none")) {
        sinks.push_back(std::make_unique<ConsoleSink>());
    }
#ifdef KELVANE_WITH_DLT
    if (dlt) {
        sinks.push_back(std::make_unique<DltSink>(appId, description));
    }
#else
    if (dlt) {
        problems.push_back("this build has no DLT support; KELVANE_LOG=" + std::string(sinkName) +
                           " logs to the console only");
        if (!console) {
            sinks.push_back(std::make_unique<ConsoleSink>());
        }
    }
    (void)description;
#endif

    LogDispatcher::Instance().Configure(appId, std::move(sinks), *threshold);
    for (const auto& problem : problems) {
        Warning(problem);
    }
}

void CSCLogging::Log(LogLevel level, const std::string& text) {
    auto& dispatcher = LogDispatcher::Instance();
    if (dispatcher.IsEnabled(level)) {
        dispatcher.Dispatch(level, text);
    }
}

}  // namespace csc_logging
