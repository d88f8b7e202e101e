#include <gtest/gtest.h>

#include "e2e_environment.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;

// A byte every 5 s never leaves the 10 s gap that ends a response: only the
// exchange's own time limit does.
TEST(HostilePeersSlow, TricklingChallengeResponseEndsAtTheTimeBoundAndTheNextIgnitionUpdates) {
    E2eEnvironment env;
    env.StartClient();
    ASSERT_TRUE(env.WaitForClientLog(kReady));
    env.AddBackendFault("challenge=trickle:5000");

    env.Ignition(true);

    ASSERT_TRUE(env.WaitForClientLog("Error downloading the challenge!", 1, 75s));
    EXPECT_EQ(env.ClientLogCount("HttpConnection: exchange exceeded 60 s"), 1U);
    EXPECT_TRUE(env.WaitForClientLog(kFeedbackSent));
    env.Ignition(false);
    env.Ignition(true);
    EXPECT_TRUE(env.WaitForClientLog(kUpdated, 1, 60s));
    EXPECT_EQ(env.Client().Stop(), 0);
}

}  // namespace
}  // namespace kelvane::e2e
