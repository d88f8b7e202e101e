#include "ara/phm/supervised_entity.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "csc_logging/log_capture.hpp"
#include "test_support/notify_socket.hpp"
#include "test_support/scoped_environment.hpp"

namespace ara::phm {
namespace {

using namespace std::chrono_literals;

enum class Checkpoint : std::uint32_t { kAlive = 1, kOther = 7 };

TEST(SupervisedEntityTest, EveryCheckpointIsAnAliveReportToTheWatchdog) {
    kelvane::testing::NotifySocket notifySocket;
    const SupervisedEntity sut("kelvane-client/KeepAlive");

    sut.ReportCheckpoint(Checkpoint::kAlive);
    sut.ReportCheckpoint(Checkpoint::kOther);

    EXPECT_TRUE(notifySocket.WaitFor("WATCHDOG=1", 5000ms, 2));
    EXPECT_EQ(notifySocket.Messages().size(), 2U);
}

TEST(SupervisedEntityTest, FailingReportsAreWarnedOnceUntilTheyWorkAgain) {
    csc_logging::LogCapture log;
    auto notifySocket = std::make_unique<kelvane::testing::NotifySocket>();
    const std::string path = notifySocket->Path();
    const SupervisedEntity sut("kelvane-client/KeepAlive");
    notifySocket.reset();
    const kelvane::testing::ScopedEnvironment goneSocket("NOTIFY_SOCKET", path);

    sut.ReportCheckpoint(Checkpoint::kAlive);
    sut.ReportCheckpoint(Checkpoint::kAlive);
    sut.ReportCheckpoint(Checkpoint::kAlive);
    kelvane::testing::NotifySocket back;
    sut.ReportCheckpoint(Checkpoint::kAlive);

    EXPECT_TRUE(back.WaitFor("WATCHDOG=1", 5000ms));
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kWarning,
                        "SupervisedEntity: kelvane-client/KeepAlive checkpoint 1 not reported"),
              1U);
    EXPECT_EQ(log.Count("checkpoints reported again"), 1U);
}

}  // namespace
}  // namespace ara::phm
