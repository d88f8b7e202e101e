#include "csc_logging/story_line.hpp"

namespace csc_logging {
namespace {

enum class Match : std::uint8_t { kWhole, kStart };

struct Entry {
    std::string_view text;
    Match match;
    StoryLine line;
};

// The ids are fixed for good: the journal catalog (deploy/journal) and
// operators' queries name them.
constexpr Entry kEntries[] = {
    {"DLC Update Started",
     Match::kWhole,
     {StoryEvent::kUpdateStarted, {}, "cefcffe4823848bc91fc7670ea170fe7"}},
    {"DLC Update pending! Connection state: ",
     Match::kStart,
     {StoryEvent::kUpdatePending, {}, "7d5dde7aa10447f4b6939ba84836a6f8"}},
    {"DLC Update finished successfully.",
     Match::kWhole,
     {StoryEvent::kUpdateFinished, {}, "2e99960df21c49b3b3113bd47989f698"}},
    {"Failed to get the Token for '",
     Match::kStart,
     {StoryEvent::kUpdateFailed, "token", "041e7fd6a09944938d73cc239b3d20cd"}},
    {"Failed to get the URL for '",
     Match::kStart,
     {StoryEvent::kUpdateFailed, "URL", "f6ef62119f34402e8fe4ad0fe80ea6da"}},
    {"Challenge request cancelled! Connection state: ",
     Match::kStart,
     {StoryEvent::kUpdateFailed, "backend unreachable", "f9a16994a538487a8a2f50e35292ce3f"}},
    {"DLC download request cancelled! Connection state: ",
     Match::kStart,
     {StoryEvent::kUpdateFailed, "backend unreachable", "f9a16994a538487a8a2f50e35292ce3f"}},
    {"Error downloading the challenge!",
     Match::kWhole,
     {StoryEvent::kUpdateFailed, "challenge", "41b3a61860a54e94bef750bec508068c"}},
    {"SetRequestParameters(): Setting the request parameters Failed!",
     Match::kWhole,
     {StoryEvent::kUpdateFailed, "identity values", "a897783a8aab40d7908f7608b9655b89"}},
    {"Error downloading the container!",
     Match::kWhole,
     {StoryEvent::kUpdateFailed, "download", "6fa9953d325448d6a0f8b5ee4022351a"}},
    {"Error handling the DLC-container, bad DLC!",
     Match::kWhole,
     {StoryEvent::kUpdateFailed, "container refused", "f43a8c9de5c84a95a2f3898b57931246"}},
    {"Sending status feedback.", Match::kWhole, {StoryEvent::kFeedbackStarted, {}, {}}},
    {"Status feedback sent successfully",
     Match::kWhole,
     {StoryEvent::kFeedbackSent, {}, "1311be3000c7414c8015a16968634f45"}},
    {"Error sending status feedback!",
     Match::kWhole,
     {StoryEvent::kFeedbackFailed, {}, "b7b705b1294e4bf0a2c7b471ec7430c3"}},
    {"Status feedback sending cancelled! Connection state: ",
     Match::kStart,
     {StoryEvent::kFeedbackFailed, {}, "b7b705b1294e4bf0a2c7b471ec7430c3"}},
    {"Certificate is valid for more than one year, no DLC Update needed",
     Match::kWhole,
     {StoryEvent::kCertificateValid, {}, "fa292abad1e843b79ef0dd3093bd1576"}},
    {"All subscriptions and connections ready",
     Match::kWhole,
     {StoryEvent::kReady, {}, "af2d0d7da1384e4798393e8e605f199f"}},
    {"Kelvane Client Terminated.",
     Match::kWhole,
     {StoryEvent::kTerminated, {}, "d20dc89211f8427d801f330dc735d5e3"}},
    // The host connector's own lines on its broker link.
    {"VIConnector: MQTT connected to ", Match::kStart, {StoryEvent::kBrokerConnected, {}, {}}},
    {"VIConnector: MQTT link to ", Match::kStart, {StoryEvent::kBrokerLost, {}, {}}},
    {"VIConnector: cannot connect to MQTT broker ",
     Match::kStart,
     {StoryEvent::kBrokerLost, {}, {}}},
    {"VIConnector: MQTT broker ", Match::kStart, {StoryEvent::kBrokerLost, {}, {}}},
};

}  // namespace

std::optional<StoryLine> FindStoryLine(std::string_view text) {
    for (const auto& entry : kEntries) {
        const bool matches = entry.match == Match::kWhole
                                 ? text == entry.text
                                 : text.substr(0, entry.text.size()) == entry.text;
        if (matches) {
            return entry.line;
        }
    }
    return std::nullopt;
}

}  // namespace csc_logging
