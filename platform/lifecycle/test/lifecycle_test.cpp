#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <sstream>
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

// The client's own lines, as it logs them (their level first: Info, Warning, Error), tell
// systemd's status line what happens.
TEST(LifecycleTest, StatusLineFollowsTheBrokerAndTellsHowTheLastUpdateEnded) {
    const std::string connected =
        "IVIConnector: MQTT connected to 127.0.0.1:1883 as 'ecu'\nIAll subscriptions and "
        "connections ready\nIDLC Update Started\n";
    const std::string feedback = "ISending status feedback.\n";
    const std::string sent = feedback + "IStatus feedback sent successfully\n";
    const std::string noToken = "EFailed to get the Token for 'TTVI-Kelvane-C003.COzelkDlc";
    const struct {
        std::string lines;
        std::string statuses;  // after the first, "Waiting for the broker"
    } cases[] = {
        {connected + "IDLC Update finished successfully.\n" + sent +
             "WVIConnector: MQTT link to 127.0.0.1:1883 lost: timeout\nIKelvane Client "
             "Terminated.\n",
         "Subscribing|Ready|Updating|Ready; last update T: finished|Waiting for the broker; last "
         "update T: finished|Stopping; last update T: finished|"},
        // "Ready" while the broker is down says nothing of the broker.
        {"IAll subscriptions and connections ready\nIDLC Update pending! Connection state: 1\n"
         "IDLC Update Started\nEError downloading the container!\n" +
             sent,
         "Update waiting for the backend|Updating|Waiting for the broker; last update T: failed "
         "(download)|"},
        // The first failure names the outcome; a feedback without a token ends silently.
        {connected + noToken + "Challenge', status=0\nEError downloading the container!\n" +
             feedback + noToken + "StatusFeedback', status=0\n",
         "Subscribing|Ready|Updating|Ready; last update T: failed (token), feedback not sent|"},
        {connected + "EError handling the DLC-container, bad DLC!\n" + feedback +
             "EError sending status feedback!\n",
         "Subscribing|Ready|Updating|Ready; last update T: failed (container refused), feedback "
         "not sent|"},
    };
    const std::regex time("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lines);
        kelvane::testing::NotifySocket notify;
        const ara::exec::ExecutionClient sut;

        std::istringstream lines(c.lines);
        for (std::string line; std::getline(lines, line);) {
            csc_logging::CSCLogging::Log(
                static_cast<LogLevel>(std::string("IWE").find(line[0]) + 2), line.substr(1));
        }

        std::string statuses;
        for (const auto& message : notify.Messages()) {
            statuses += std::regex_replace(message.substr(7), time, "T") + "|";
        }
        EXPECT_EQ(statuses, "Waiting for the broker|" + c.statuses);
    }
}

}  // namespace
