#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "e2e_environment.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;

constexpr const char* kReady = "All subscriptions and connections ready";
constexpr const char* kFeedbackSent = "Status feedback sent successfully";

class FaultScenarios : public ::testing::Test {
protected:
    explicit FaultScenarios(E2eEnvironment::Options options = {}) : env_(std::move(options)) {}

    void TearDown() override {
        if (HasFailure()) {
            std::cout << env_.Logs();
        }
    }

    E2eEnvironment env_;
};

class BackendDownAtFirst : public FaultScenarios {
protected:
    BackendDownAtFirst() : FaultScenarios(E2eEnvironment::Options{200, false, {}, {}}) {}
};

TEST_F(BackendDownAtFirst, UpdateWaitsUntilTheBackendComesUpThenRuns) {
    env_.StartClient();
    ASSERT_TRUE(env_.WaitForClientLog("MQTT subscribe handling ignored! Connection state: 1"))
        << env_.Logs();

    env_.Ignition(true);
    ASSERT_TRUE(env_.WaitForClientLog("DLC Update pending! Connection state: 1")) << env_.Logs();
    EXPECT_EQ(env_.ClientLogCount("DLC Update Started"), 0U);

    env_.StartBackend();
    ASSERT_TRUE(env_.WaitForClientLog("DLC Update finished successfully.")) << env_.Logs();
    EXPECT_TRUE(env_.WaitForClientLog(kReady));
    EXPECT_EQ(env_.StopClient(), 0);
}

TEST_F(FaultScenarios, DownloadAnsweredWith500SendsFeedbackAndKeepsTheKeyStore) {
    env_.StartClient();
    ASSERT_TRUE(env_.WaitForClientLog(kReady)) << env_.Logs();
    const auto before = env_.VehicleStatus();
    env_.AddBackendFault("download=status:500");

    env_.Ignition(true);

    ASSERT_TRUE(env_.WaitForClientLog(kFeedbackSent)) << env_.Logs();
    EXPECT_EQ(env_.ClientLogCount("Unexpected HTTP response: 500!"), 1U);
    EXPECT_EQ(env_.ClientLogCount("Error downloading the container!"), 1U);
    EXPECT_EQ(env_.VehicleStatus().at("trainingCounter"), before.at("trainingCounter"));
    EXPECT_EQ(env_.StopClient(), 0);
}

TEST_F(FaultScenarios, ContainerWithBadMacIsRejectedAndFeedbackStillSent) {
    env_.StartClient();
    ASSERT_TRUE(env_.WaitForClientLog(kReady)) << env_.Logs();
    const auto before = env_.VehicleStatus();
    env_.AddBackendFault("download=bad-mac");

    env_.Ignition(true);

    ASSERT_TRUE(env_.WaitForClientLog(kFeedbackSent)) << env_.Logs();
    EXPECT_EQ(env_.ClientLogCount("Error handling the DLC-container, bad DLC!"), 1U);
    EXPECT_EQ(env_.VehicleStatus().at("trainingCounter"), before.at("trainingCounter"));
    EXPECT_EQ(env_.BackendEventCount("\"exchange\":\"feedback\""), 1U);
    EXPECT_EQ(env_.StopClient(), 0);
}

TEST_F(FaultScenarios, SigtermDuringAnUpdateLetsTheUpdateFinishThenExitsCleanly) {
    env_.StartClient();
    ASSERT_TRUE(env_.WaitForClientLog(kReady)) << env_.Logs();
    const auto before = env_.VehicleStatus();
    env_.AddBackendFault("download=delay:3000");

    env_.Ignition(true);
    ASSERT_TRUE(env_.WaitForClientLog("Challenge received successfully")) << env_.Logs();

    // The signal reaches the client while it waits for the download; nothing it
    // is waiting in may break off half-way.
    EXPECT_EQ(env_.StopClient(10s), 0);
    EXPECT_EQ(env_.ClientLogCount("DLC Update finished successfully."), 1U);
    EXPECT_EQ(env_.ClientLogCount(kFeedbackSent), 1U);
    EXPECT_EQ(env_.ClientLogCount("Kelvane Client Terminated."), 1U);
    const auto after = env_.VehicleStatus();
    ASSERT_FALSE(after.empty()) << env_.Logs();
    EXPECT_EQ(std::stoi(after.at("trainingCounter")), std::stoi(before.at("trainingCounter")) + 1);
    EXPECT_EQ(env_.BackendEventCount("\"outcome\":\"updated\""), 1U);
}

TEST_F(FaultScenarios, StatusLineWithoutDigitsEndsTheProcessAndARestartedClientUpdates) {
    env_.StartClient();
    ASSERT_TRUE(env_.WaitForClientLog(kReady)) << env_.Logs();
    const auto before = env_.VehicleStatus();
    env_.AddBackendFault("challenge=no-digits");

    env_.Ignition(true);
    const auto exit = env_.ClientExit(20s);
    ASSERT_TRUE(exit.has_value()) << env_.Logs();
    EXPECT_NE(*exit, 0);
    EXPECT_EQ(env_.VehicleStatus().at("trainingCounter"), before.at("trainingCounter"));

    env_.StartClient();
    ASSERT_TRUE(env_.WaitForClientLog(kReady, 2)) << env_.Logs();
    env_.Ignition(false);
    env_.Ignition(true);
    ASSERT_TRUE(env_.WaitForClientLog("DLC Update finished successfully.")) << env_.Logs();
    EXPECT_EQ(env_.StopClient(), 0);
}

}  // namespace
}  // namespace kelvane::e2e
