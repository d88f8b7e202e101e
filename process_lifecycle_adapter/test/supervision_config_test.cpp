#include "supervision_config.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <tuple>

#include "csc_logging/log_capture.hpp"
#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"

namespace process_lifecycle_adapter {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogLevel;
using kelvane::testing::ScopedEnvironment;
using kelvane::testing::TemporaryDirectory;

TEST(SupervisionConfigTest, PeriodComesFromTheFileWithinLimitsAndHalfTheWatchdogTimeOut) {
    TemporaryDirectory directory;
    // The file's text (none: no file), watchdog time-out in us (0: none), period in ms, warnings.
    const std::tuple<std::optional<std::string>, long, long, std::size_t> rows[] = {
        {std::nullopt, 0, 5000, 1},
        {"[supervision]\nkeep_alive_period_ms = 250\n", 0, 250, 0},
        {"# nothing configured\n", 0, 5000, 0},
        {"[supervision]\n", 4000, 10, 0},
        {"[supervision]\nkeep_alive_period_ms=10\n", 0, 10, 0},
        {"[supervision]\nkeep_alive_period_ms=3600000\n", 0, 3600000, 0},
        {"[supervision]\nkeep_alive_period_ms=9\n", 0, 5000, 1},
        {"[supervision]\nkeep_alive_period_ms=1s\n", 0, 5000, 1},
        {"[supervision]\nkeep_alive_period_ms=\n", 0, 5000, 1},
        {"[supervision]\nkeep_alive_period_ms=3600001\n", 3000000, 1500, 1},
        {"[supervision]\nkeep_alive_period_ms=99999999999999999999\n", 0, 5000, 1},
        {"[supervision]\nkeep_alive_period_ms=1000\n", 3000000, 1000, 0},
        {"[supervision]\nkeep_alive_period_ms=1501\n", 3000000, 1500, 1},
        {"[supervision]\nkeep_alive_period_ms=100\nkeep_alive_ms=5\n", 0, 100, 1},
        {"[supervision\nkeep_alive_period_ms=100\n", 0, 5000, 1},
        {"[other]\nkeep_alive_period_ms=100\n", 0, 5000, 0}};
    for (const auto& [text, watchdogUs, periodMs, warnings] : rows) {
        SCOPED_TRACE(text.value_or("no file") + " watchdog " + std::to_string(watchdogUs));
        const std::string path =
            text ? directory.Write("phm.ini", *text) : directory.File("absent/phm.ini");
        csc_logging::LogCapture log;
        std::optional<std::chrono::microseconds> watchdog;
        if (watchdogUs > 0) {
            watchdog = std::chrono::microseconds(watchdogUs);
        }

        EXPECT_EQ(SupervisionConfig::Load(path, watchdog).keepAlivePeriod,
                  std::chrono::milliseconds(periodMs));

        EXPECT_EQ(log.Count(LogLevel::kWarning, ""), warnings) << log.Dump();
        EXPECT_EQ(log.Count(LogLevel::kWarning, path), warnings) << log.Dump();
    }
}

TEST(SupervisionConfigTest, WatchdogTimeoutIsTakenOnlyWhenItIsANumberForThisProcess) {
    const ScopedEnvironment usec("WATCHDOG_USEC", "8000000");
    const ScopedEnvironment noPid("WATCHDOG_PID", std::nullopt);
    EXPECT_EQ(SupervisionConfig::WatchdogTimeoutFromEnvironment(), 8s);
    {
        const ScopedEnvironment parents("WATCHDOG_PID", std::to_string(getppid()));
        EXPECT_EQ(SupervisionConfig::WatchdogTimeoutFromEnvironment(), std::nullopt);
    }
    const ScopedEnvironment garbage("WATCHDOG_USEC", "soon");
    EXPECT_EQ(SupervisionConfig::WatchdogTimeoutFromEnvironment(), std::nullopt);
}

}  // namespace
}  // namespace process_lifecycle_adapter
