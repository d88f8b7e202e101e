#include "journal_sink.hpp"

#include <sys/uio.h>
// The sink's own file and line would tell nothing about where a record came from.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "csc_logging/story_line.hpp"
#include "syslog_priority.hpp"

namespace csc_logging {
namespace {

iovec Field(std::string_view text) {
    return {const_cast<char*>(text.data()), text.size()};
}

}  // namespace

JournalSink::JournalSink()
    : identifier_(std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name) {}

void JournalSink::Write(const LogRecord& record) {
    const std::string message = "MESSAGE=" + record.text;
    const std::string priority = "PRIORITY=" + std::to_string(SyslogPriority(record.level));
    std::string messageId;
    iovec fields[4] = {Field(message), Field(priority), Field(identifier_), {}};
    int count = 3;
    if (const auto story = FindStoryLine(record.text); story && !story->messageId.empty()) {
        messageId = "MESSAGE_ID=" + std::string(story->messageId);
        fields[count++] = Field(messageId);
    }
    if (sd_journal_sendv(fields, count) < 0) {
        fallback_.Write(record);
    }
}

}  // namespace csc_logging
