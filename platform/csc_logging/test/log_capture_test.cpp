#include "csc_logging/log_capture.hpp"

#include <gtest/gtest.h>

#include "csc_logging/csc_logging.hpp"

namespace csc_logging {
namespace {

using namespace std::chrono_literals;

TEST(LogCaptureTest, WaitForGivesUpAtTheDeadline) {
    LogCapture log;
    CSCLogging::Info("something else");

    EXPECT_FALSE(log.WaitFor("never logged", 30ms));
}

TEST(LogCaptureTest, CountsOccurrencesByLevelAndFindsOrder) {
    LogCapture log;
    CSCLogging::Info("first");
    CSCLogging::Error("second");
    CSCLogging::Info("second");

    EXPECT_EQ(log.Count("second"), 2U);
    EXPECT_EQ(log.Count(LogLevel::kError, "second"), 1U);
    EXPECT_EQ(log.IndexOf("second"), 1);
    EXPECT_EQ(log.IndexOf("second", 2), 2);
    EXPECT_EQ(log.IndexOf("third"), -1);
    EXPECT_TRUE(log.WaitFor("second", 0ms, 2));
}

TEST(LogCaptureTest, SeesNothingLoggedBeforeItExistedOrAfterClear) {
    CSCLogging::Info("before");
    LogCapture log;
    CSCLogging::Info("during");
    log.Clear();
    CSCLogging::Info("after");

    EXPECT_EQ(log.Texts(), std::vector<std::string>{"after"});
}

}  // namespace
}  // namespace csc_logging
