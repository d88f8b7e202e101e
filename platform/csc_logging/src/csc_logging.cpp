#include "csc_logging/csc_logging.hpp"

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

#include "console_sink.hpp"
#include "journal_sink.hpp"
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
    bool console = sinkName == "console" || sinkName == "both";
    const bool dlt = sinkName == "dlt" || sinkName == "both";
    const bool journal = sinkName == "journal";
    if (!console && !dlt && !journal && sinkName != "none") {
        problems.push_back("KELVANE_LOG='" + std::string(sinkName) +
                           "' is not one of console, dlt, both, journal, none; using console");
        console = true;
    }

    std::vector<std::unique_ptr<LogSink>> sinks;
    if (journal) {
        if (::access(JournalSink::kSocket, W_OK) == 0) {
            sinks.push_back(std::make_unique<JournalSink>());
        } else {
            problems.push_back(std::string("KELVANE_LOG=journal, but there is no journal at ") +
                               JournalSink::kSocket + "; logging to the console");
            console = true;
        }
    }
#ifdef KELVANE_WITH_DLT
    if (dlt) {
        sinks.push_back(std::make_unique<DltSink>(appId, description));
    }
#else
    if (dlt) {
        problems.push_back("this build has no DLT support; KELVANE_LOG=" + std::string(sinkName) +
                           " logs to the console only");
        console = true;
    }
    (void)description;
#endif
    if (console) {
        sinks.insert(sinks.begin(), std::make_unique<ConsoleSink>());
    }

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
