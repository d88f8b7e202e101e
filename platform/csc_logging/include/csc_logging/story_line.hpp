#ifndef CSC_LOGGING_STORY_LINE_HPP
#define CSC_LOGGING_STORY_LINE_HPP

#include <cstdint>
#include <optional>
#include <string_view>

namespace csc_logging {

/// What a line an operator keys on says happened.
enum class StoryEvent : std::uint8_t {
    kUpdateStarted,
    kUpdatePending,
    kUpdateFinished,
    kUpdateFailed,
    kFeedbackStarted,
    kFeedbackSent,
    kFeedbackFailed,
    kCertificateValid,
    kReady,
    kTerminated,
    kBrokerConnected,
    kBrokerLost,
};

struct StoryLine {
    StoryEvent event;
    /// What failed, for kUpdateFailed ("download", "token", ...); empty otherwise.
    std::string_view failure;
    /// The journal's MESSAGE_ID (32 hex digits, explained in the journal catalog);
    /// empty for the lines that carry none.
    std::string_view messageId;
};

/// Which story line `text` is. The client's lines are fixed texts, known here by
/// their exact wording (or the fixed part before a number or name), so the
/// platform can tell the story without the client doing anything for it.
std::optional<StoryLine> FindStoryLine(std::string_view text);

}  // namespace csc_logging

#endif  // CSC_LOGGING_STORY_LINE_HPP
