#include <gtest/gtest.h>

#include <chrono>

#include "ara/exec/execution_client.h"
#include "ara/phm/supervised_entity.h"
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

}  // namespace
