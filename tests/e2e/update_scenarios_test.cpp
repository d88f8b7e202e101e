#include <gtest/gtest.h>

#include <csignal>

#include "e2e_environment.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;

constexpr const char* kReady = "All subscriptions and connections ready";
constexpr const char* kUpdateFinished = "DLC Update finished successfully.";
constexpr const char* kFeedbackSent = "Status feedback sent successfully";
// The broker's SUBACK: from here on a push reaches the client.
constexpr const char* kSubscribed =
    "Subscribe acknowledged to topic TTVI-Kelvane-C003.CTzelkDlcInitiation, status 0";
constexpr const char* kStillValid =
    "Certificate is valid for more than one year, no DLC Update needed";

class UpdateScenarios : public ::testing::Test {
protected:
    void StartClientAndWaitUntilReady() {
        env_.StartClient();
        ASSERT_TRUE(env_.WaitForClientLog(kReady)) << env_.Logs();
        ASSERT_TRUE(env_.WaitForClientLog(kSubscribed)) << env_.Logs();
    }

    void TearDown() override {
        if (HasFailure()) {
            std::cout << env_.Logs();
        }
    }

    E2eEnvironment env_;
};

TEST_F(UpdateScenarios, IgnitionUpdatesAnExpiringCertificateOnceAndAPushUpdatesAgain) {
    StartClientAndWaitUntilReady();
    const auto before = env_.VehicleStatus();

    env_.Ignition(true);
    ASSERT_TRUE(env_.WaitForClientLog(kFeedbackSent)) << env_.Logs();
    EXPECT_EQ(env_.ClientLogCount(kUpdateFinished), 1U);
    const auto afterFirst = env_.VehicleStatus();
    EXPECT_EQ(std::stoi(afterFirst.at("trainingCounter")),
              std::stoi(before.at("trainingCounter")) + 1);
    EXPECT_NE(afterFirst.at("baseCertificateNotAfter"), before.at("baseCertificateNotAfter"));

    env_.Ignition(false);
    env_.Ignition(true);
    ASSERT_TRUE(env_.WaitForClientLog(kStillValid)) << env_.Logs();
    EXPECT_EQ(env_.ClientLogCount("DLC Update Started"), 1U);

    env_.Push();
    ASSERT_TRUE(env_.WaitForClientLog(kFeedbackSent, 2)) << env_.Logs();
    EXPECT_EQ(env_.ClientLogCount(kUpdateFinished), 2U);
    EXPECT_EQ(std::stoi(env_.VehicleStatus().at("trainingCounter")),
              std::stoi(before.at("trainingCounter")) + 2);
    EXPECT_EQ(env_.BackendEventCount("\"exchange\":\"feedback\""), 2U);
    EXPECT_EQ(env_.StopClient(), 0);
}

TEST_F(UpdateScenarios, KeyManagementServiceRestartedLaterUpdateWorks) {
    StartClientAndWaitUntilReady();

    env_.StopVehicle();
    env_.StartVehicle();
    env_.Push();

    ASSERT_TRUE(env_.WaitForClientLog(kUpdateFinished, 1, 30s)) << env_.Logs();
    EXPECT_EQ(env_.StopClient(), 0);
}

TEST_F(UpdateScenarios, BrokerRestartedClientResubscribesAndALaterPushWorks) {
    StartClientAndWaitUntilReady();

    const auto subscriptions = env_.ClientLogCount(kSubscribed);

    env_.Broker().Restart();
    ASSERT_TRUE(env_.WaitForClientLog("MQTT Re-Subscription request was received")) << env_.Logs();
    ASSERT_TRUE(env_.WaitForClientLog(kSubscribed, subscriptions + 1)) << env_.Logs();
    env_.Push();

    ASSERT_TRUE(env_.WaitForClientLog(kUpdateFinished)) << env_.Logs();
    EXPECT_EQ(env_.StopClient(), 0);
}

TEST_F(UpdateScenarios, BurstOfPushMessagesStartsUpdatesOnlyAsTheRulesAllow) {
    StartClientAndWaitUntilReady();

    for (int i = 0; i < 100; ++i) {
        env_.Push();
    }
    ASSERT_TRUE(env_.WaitForClientLog("MQTT Message was received", 100, 60s)) << env_.Logs();
    // Let the last update, if one was started by the burst, finish.
    ASSERT_TRUE(
        env_.WaitForClientLog(kFeedbackSent, env_.ClientLogCount("DLC Update Started"), 30s));

    const auto started = env_.ClientLogCount("DLC Update Started");
    EXPECT_GE(started, 1U);
    EXPECT_EQ(env_.ClientLogCount(kFeedbackSent), started);
    // Every update started by a push makes the next two pushes ignored.
    EXPECT_LE(started, 34U);
    EXPECT_GE(env_.ClientLogCount(" Ignored!"), 2 * (started - 1));
    EXPECT_TRUE(env_.ClientRunning());
    EXPECT_EQ(env_.StopClient(), 0);
}

}  // namespace
}  // namespace kelvane::e2e
