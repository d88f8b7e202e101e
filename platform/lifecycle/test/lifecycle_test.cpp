#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "ara/exec/execution_client.h"
#include "ara/phm/supervised_entity.h"
#include "csc_logging/csc_logging.hpp"
#include "csc_logging/log_capture.hpp"
#include "test_support/notify_socket.hpp"
#include "test_support/scoped_environment.hpp"

// Notifications and their order are pinned by the process lifecycle adapter's tests.
namespace {

using namespace std::chrono_literals;
using csc_logging::LogLevel;
using Lines = std::vector<std::pair<LogLevel, std::string>>;

enum class Checkpoint : std::uint32_t { kAlive = 1 };

TEST(LifecycleTest, AGoneNotifySocketIsWarnedOnceUntilItIsBack) {
    csc_logging::LogCapture log;
    const ara::exec::ExecutionClient execution;
    const ara::phm::SupervisedEntity entity("kelvane-client/KeepAlive");
    const kelvane::testing::ScopedEnvironment goneSocket("NOTIFY_SOCKET", "/nonexistent/notify");

    EXPECT_EQ(execution.ReportExecutionState(ara::exec::ExecutionState::kRunning),
              ara::exec::ExecutionReturnType::kGeneralError);
    entity.ReportCheckpoint(Checkpoint::kAlive);
    entity.ReportCheckpoint(Checkpoint::kAlive);
    kelvane::testing::NotifySocket back;
    entity.ReportCheckpoint(Checkpoint::kAlive);

    EXPECT_TRUE(back.WaitFor("WATCHDOG=1", 5000ms));
    EXPECT_EQ(log.Count(LogLevel::kWarning, "ExecutionClient: cannot send READY=1"), 1U);
    EXPECT_EQ(log.Count(LogLevel::kWarning,
                        "SupervisedEntity: kelvane-client/KeepAlive checkpoint 1 not reported"),
              1U);
    EXPECT_EQ(log.Count("checkpoints reported again"), 1U);
}

// The client's own lines, as it logs them, tell systemd's status line what happens.
TEST(LifecycleTest, StatusLineFollowsTheBrokerAndTellsHowTheLastUpdateEnded) {
    constexpr auto kInfo = LogLevel::kInfo;
    constexpr auto kError = LogLevel::kError;
    const Lines connected = {{kInfo, "VIConnector: MQTT connected to 127.0.0.1:1883 as 'ecu'"},
                             {kInfo, "All subscriptions and connections ready"}};
    const struct {
        const char* name;
        Lines lines;
        std::vector<std::string> statuses;  // after the first, "Waiting for the broker"
    } cases[] = {
        {"a finished update, then the broker goes away",
         {connected[0],
          connected[1],
          {kInfo, "DLC Update Started"},
          {kInfo, "DLC Update finished successfully."},
          {kInfo, "Sending status feedback."},
          {kInfo, "Status feedback sent successfully"},
          {LogLevel::kWarning, "VIConnector: MQTT link to 127.0.0.1:1883 lost: timeout"},
          {kInfo, "Kelvane Client Terminated."}},
         {"Subscribing", "Ready", "Updating", "Ready; last update T: finished",
          "Waiting for the broker; last update T: finished", "Stopping; last update T: finished"}},
        // "Ready" while the broker is down says nothing of the broker.
        {"a failed download after waiting for the backend",
         {{kInfo, "All subscriptions and connections ready"},
          {kInfo, "DLC Update pending! Connection state: 1"},
          {kInfo, "DLC Update Started"},
          {kError, "Error downloading the container!"},
          {kInfo, "Sending status feedback."},
          {kInfo, "Status feedback sent successfully"}},
         {"Update waiting for the backend", "Updating",
          "Waiting for the broker; last update T: failed (download)"}},
        // The first failure names the outcome; a feedback without a token ends silently.
        {"no token for either request",
         {connected[0],
          connected[1],
          {kInfo, "DLC Update Started"},
          {kError, "Failed to get the Token for 'TTVI-Kelvane-C003.COzelkDlcChallenge', status=0"},
          {kError, "Error downloading the container!"},
          {kInfo, "Sending status feedback."},
          {kError,
           "Failed to get the Token for 'TTVI-Kelvane-C003.COzelkDlcStatusFeedback', status=0"}},
         {"Subscribing", "Ready", "Updating",
          "Ready; last update T: failed (token), feedback not sent"}},
        {"a refused container whose feedback fails",
         {connected[0],
          connected[1],
          {kInfo, "DLC Update Started"},
          {kError, "Error handling the DLC-container, bad DLC!"},
          {kInfo, "Sending status feedback."},
          {kError, "Error sending status feedback!"}},
         {"Subscribing", "Ready", "Updating",
          "Ready; last update T: failed (container refused), feedback not sent"}},
    };
    const std::regex time("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kelvane::testing::NotifySocket notify;
        const ara::exec::ExecutionClient sut;

        for (const auto& [level, text] : c.lines) {
            csc_logging::CSCLogging::Log(level, text);
        }

        std::vector<std::string> statuses;
        for (const auto& message : notify.Messages()) {
            statuses.push_back(std::regex_replace(message, time, "T"));
        }
        std::vector<std::string> expected = {"STATUS=Waiting for the broker"};
        for (const auto& status : c.statuses) {
            expected.push_back("STATUS=" + status);
        }
        EXPECT_EQ(statuses, expected);
    }
}

}  // namespace
