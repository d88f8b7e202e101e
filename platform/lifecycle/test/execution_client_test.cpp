#include "ara/exec/execution_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/notify_socket.hpp"
#include "test_support/scoped_environment.hpp"

namespace ara::exec {
namespace {

using namespace std::chrono_literals;

TEST(ExecutionClientTest, RunningAndTerminatingBecomeReadyAndStoppingNotifications) {
    kelvane::testing::NotifySocket notifySocket;
    const ExecutionClient sut;

    const auto running = sut.ReportExecutionState(ExecutionState::kRunning);
    ASSERT_TRUE(notifySocket.WaitFor("READY=1", 5000ms));
    const auto terminating = sut.ReportExecutionState(ExecutionState::kTerminating);
    ASSERT_TRUE(notifySocket.WaitFor("STOPPING=1", 5000ms));

    EXPECT_EQ(running, ExecutionReturnType::kSuccess);
    EXPECT_EQ(terminating, ExecutionReturnType::kSuccess);
    EXPECT_EQ(notifySocket.Messages(), (std::vector<std::string>{"READY=1", "STOPPING=1"}));
}

TEST(ExecutionClientTest, WithoutNotifySocketReportingIsANoOp) {
    csc_logging::LogCapture log;
    const kelvane::testing::ScopedEnvironment noSocket("NOTIFY_SOCKET", std::nullopt);
    const ExecutionClient sut;

    EXPECT_EQ(sut.ReportExecutionState(ExecutionState::kRunning), ExecutionReturnType::kSuccess);
    EXPECT_TRUE(log.Texts().empty());
}

TEST(ExecutionClientTest, UnreachableNotifySocketIsAGeneralErrorAndAWarning) {
    csc_logging::LogCapture log;
    std::string path;
    {
        kelvane::testing::NotifySocket gone;
        path = gone.Path();
    }
    const kelvane::testing::ScopedEnvironment goneSocket("NOTIFY_SOCKET", path);
    const ExecutionClient sut;

    const auto result = sut.ReportExecutionState(ExecutionState::kRunning);

    EXPECT_EQ(result, ExecutionReturnType::kGeneralError);
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kWarning, "ExecutionClient: cannot send READY=1"),
              1U);
}

}  // namespace
}  // namespace ara::exec
