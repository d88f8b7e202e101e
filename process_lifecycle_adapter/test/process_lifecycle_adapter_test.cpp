#include "process_lifecycle_adapter/process_lifecycle_adapter.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include "csc_logging/log_capture.hpp"
#include "supervision_config.hpp"
#include "test_support/child_process.hpp"
#include "test_support/notify_socket.hpp"
#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"

namespace process_lifecycle_adapter {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogLevel;
using kelvane::testing::NotifySocket;
using kelvane::testing::ScopedEnvironment;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;

class FakeProcessLifecycleAdapterCallback : public ProcessLifecycleAdapterCallbackIf {
public:
    void ProcessLifecycleAdapterTerminate() override { ++terminateCalls; }
    std::uint8_t ProcessLifecycleAdapterGetHealthStatus() override {
        ++healthCalls;
        return health;
    }

    std::atomic<int> terminateCalls{0};
    std::atomic<int> healthCalls{0};
    std::atomic<std::uint8_t> health{0};
};

class ProcessLifecycleAdapterTest : public ::testing::Test {
protected:
    std::string Config(const std::string& periodMs) {
        return directory_.Write("phm.ini",
                                "[supervision]\nkeep_alive_period_ms=" + periodMs + "\n");
    }

    TemporaryDirectory directory_;
    // No systemd watchdog from the environment the tests run in.
    ScopedEnvironment noWatchdog_{"WATCHDOG_USEC", std::nullopt};
    csc_logging::LogCapture log_;
    NotifySocket notifySocket_;
    FakeProcessLifecycleAdapterCallback callback_;
};

TEST_F(ProcessLifecycleAdapterTest, SigtermReachesTheCallbackOnceAndDestructionEndsAtOnce) {
    auto sut =
        std::make_unique<ProcessLifecycleAdapter>("kelvane-client", &callback_, Config("3600000"));
    ASSERT_TRUE(notifySocket_.WaitFor("READY=1", 5000ms));

    kill(getpid(), SIGTERM);
    ASSERT_TRUE(WaitUntil([&] { return callback_.terminateCalls.load() == 1; }, 5000ms, 1ms));
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(log_.WaitFor("ignored, already terminating", 5000ms));
    auto destroyed = std::async(std::launch::async, [&] { sut.reset(); });

    ASSERT_EQ(destroyed.wait_for(5s), std::future_status::ready) << "the keep-alive wait is hours";
    EXPECT_EQ(callback_.terminateCalls.load(), 1);
    EXPECT_EQ(callback_.healthCalls.load(), 0);
    EXPECT_EQ(notifySocket_.Messages(),
              (std::vector<std::string>{"STATUS=Waiting for the broker", "READY=1", "STOPPING=1"}));
    EXPECT_TRUE(log_.Contains(LogLevel::kInfo, "termination requested by signal 15"));
}

TEST_F(ProcessLifecycleAdapterTest, AliveIsReportedAtHalfTheWatchdogTimeOutOnlyWhileHealthy) {
    const ScopedEnvironment watchdog("WATCHDOG_USEC", "40000");
    const ScopedEnvironment owner("WATCHDOG_PID", std::to_string(getpid()));
    const ScopedEnvironment config("KELVANE_PHM_CONFIG", Config("30"));
    callback_.health = 3;
    {
        ProcessLifecycleAdapter sut("kelvane-client", &callback_);

        ASSERT_TRUE(WaitUntil([&] { return callback_.healthCalls.load() >= 4; }, 5000ms, 1ms));
        EXPECT_EQ(notifySocket_.Count("WATCHDOG=1"), 0U);
        callback_.health = 0;
        ASSERT_TRUE(notifySocket_.WaitFor("WATCHDOG=1", 5000ms, 3));
        EXPECT_EQ(sut.KeepAlivePeriod(), 20ms);
        EXPECT_EQ(log_.Count(LogLevel::kWarning, "keep_alive_period_ms=30 is too long"), 1U);
        EXPECT_EQ(log_.Count(LogLevel::kWarning, "health status 3, alive reports withheld"), 1U);
        EXPECT_EQ(log_.Count(LogLevel::kInfo, "healthy again"), 1U);
    }
    // Without a callback to ask, the process counts as healthy.
    const auto reports = notifySocket_.Count("WATCHDOG=1");
    const ProcessLifecycleAdapter withoutCallback("kelvane-client", nullptr);
    EXPECT_TRUE(notifySocket_.WaitFor("WATCHDOG=1", 5000ms, reports + 2));
}

TEST(SupervisionConfigTest, PeriodComesFromTheFileWithinLimitsAndHalfTheWatchdogTimeOut) {
    TemporaryDirectory directory;
    // The file's text (none: no file), watchdog time-out in us (0: none), period in ms, warnings.
    const std::tuple<std::optional<std::string>, long, long, std::size_t> rows[] = {
        {std::nullopt, 0, 5000, 1},
        {"[supervision]\n", 4000, 10, 0},
        {"[supervision]\nkeep_alive_period_ms=10\n", 0, 10, 0},
        {"[supervision]\nkeep_alive_period_ms=3600000\n", 0, 3600000, 0},
        {"[supervision]\nkeep_alive_period_ms=9\n", 0, 5000, 1},
        {"[supervision]\nkeep_alive_period_ms=1s\n", 0, 5000, 1},
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
        const auto watchdog =
            watchdogUs > 0 ? std::optional(std::chrono::microseconds(watchdogUs)) : std::nullopt;

        EXPECT_EQ(SupervisionConfig::Load(path, watchdog).keepAlivePeriod,
                  std::chrono::milliseconds(periodMs));

        EXPECT_EQ(log.Count(LogLevel::kWarning, ""), warnings) << log.Dump();
        EXPECT_EQ(log.Count(LogLevel::kWarning, path), warnings) << log.Dump();
    }
}

TEST(SupervisionConfigTest,
     ConfigIsInEtcAndTheWatchdogTimeoutIsTakenOnlyWhenANumberForThisProcess) {
    const ScopedEnvironment noConfig("KELVANE_PHM_CONFIG", std::nullopt);
    EXPECT_EQ(ProcessLifecycleAdapter::ConfigPath("kelvane-client"), "/etc/kelvane-client-phm.ini");
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
