#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <string>

#include "e2e_environment.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The client's own footprint; a sanitizer's shadow memory multiplies it, so
// there the figure is only printed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kRssLimitKiB = std::size_t{1} << 40;
#else
constexpr std::size_t kRssLimitKiB = 48 * 1024;
#endif

std::size_t PeakRssKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stoul(line.substr(6));
        }
    }
    return 0;
}

// A byte every 5 s never leaves the 10 s gap that ends a response: only the
// exchange's own time limit does.
TEST(HostilePeersSlow, TricklingChallengeResponseEndsAtTheTimeBoundAndTheNextIgnitionUpdates) {
    E2eEnvironment env;
    env.StartClient();
    ASSERT_TRUE(env.WaitForClientLog("All subscriptions and connections ready")) << env.Logs();
    env.AddBackendFault("challenge=trickle:5000");
    const auto start = Clock::now();

    env.Ignition(true);

    ASSERT_TRUE(env.WaitForClientLog("Error downloading the challenge!", 1, 75s)) << env.Logs();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    EXPECT_EQ(env.ClientLogCount("HttpConnection: exchange exceeded 60 s"), 1U);
    EXPECT_TRUE(env.WaitForClientLog("Status feedback sent successfully"));
    const auto peak = PeakRssKiB(env.ClientPid());
    std::cout << "trickle: exchange ended after " << took.count() << " ms, peak RSS " << peak
              << " KiB\n";
    EXPECT_LT(took, 75s);
    EXPECT_LT(peak, kRssLimitKiB);

    env.Ignition(false);
    env.Ignition(true);
    EXPECT_TRUE(env.WaitForClientLog("DLC Update finished successfully.", 1, 60s)) << env.Logs();
    EXPECT_EQ(env.StopClient(), 0);
}

}  // namespace
}  // namespace kelvane::e2e
