#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <thread>

#include "e2e_environment.hpp"
#include "test_support/child_process.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;

constexpr const char* kReady = "All subscriptions and connections ready";
constexpr const char* kUpdated = "DLC Update finished successfully.";

class PlatformFaults : public ::testing::Test {
protected:
    void SetUp() override {
        env_.StartClient();
        ASSERT_TRUE(env_.WaitForClientLog(kReady)) << env_.Logs();
    }
    void TearDown() override {
        if (HasFailure()) {
            std::cout << env_.Logs();
        }
    }

    E2eEnvironment env_;
};

TEST_F(PlatformFaults, BusRestartWhileIdleIsRiddenThroughAndTheNextIgnitionUpdates) {
    env_.Bus().Stop();
    ASSERT_TRUE(env_.WaitForClientLog("Clamp Control Service connection state has changed to 0"));
    const auto readyBefore = env_.ClientLogCount(kReady);

    env_.Bus().Start();

    ASSERT_TRUE(env_.WaitForClientLog(kReady, readyBefore + 1, 30s));
    EXPECT_TRUE(env_.ClientRunning());
    EXPECT_EQ(env_.VehicleStatus().at("running"), "true");
    env_.Ignition(true);
    EXPECT_TRUE(env_.WaitForClientLog(kUpdated, 1, 30s));
    EXPECT_EQ(env_.VehicleLog().find("terminate called"), std::string::npos);
    EXPECT_EQ(env_.StopClient(), 0);
}

TEST_F(PlatformFaults, VehicleKilledInHandleDlcKeepsAWholeKeyStoreAndTheNextTriggerUpdates) {
    const auto before = env_.VehicleStatus();
    env_.VehicleCommand({"fail", "stall"});
    env_.Ignition(true);
    ASSERT_TRUE(testing::WaitUntil(
        [this] { return env_.VehicleLog().find("fail point stalls") != std::string::npos; }, 30s,
        50ms));

    env_.KillVehicle();

    // The store loads (it is whole) and holds the generation it had: the kill
    // came before the container was taken in.
    const auto killed = env_.VehicleStatus();
    EXPECT_EQ(killed.at("trainingCounter"), before.at("trainingCounter"));
    EXPECT_EQ(killed.at("pssHash"), before.at("pssHash"));
    // The lost call either ends the client by its designed path (the service
    // manager starts it again) or is logged as a failed update.
    if (env_.ClientExit(20s)) {
        env_.StartClient();
    } else {
        EXPECT_TRUE(env_.WaitForClientLog("Status feedback sent", 1, 5s));
    }
    // Without the clamp service the client cannot be ready, restarted or not.
    const auto readyBefore = env_.ClientLogCount(kReady);
    env_.StartVehicle();
    ASSERT_TRUE(env_.WaitForClientLog(kReady, readyBefore + 1, 30s));
    env_.Ignition(true);
    EXPECT_TRUE(env_.WaitForClientLog(kUpdated, 1, 30s));
    EXPECT_EQ(std::stoi(env_.VehicleStatus().at("trainingCounter")),
              std::stoi(before.at("trainingCounter")) + 1);
    EXPECT_EQ(env_.StopClient(), 0);
}

TEST_F(PlatformFaults, BrokerAndBackendGoneFor30SecondsThenAPushUpdates) {
    env_.Broker().Stop();
    env_.StopBackend();
    ASSERT_TRUE(env_.WaitForClientLog("MQTT link to"));
    const auto readyBefore = env_.ClientLogCount(kReady);
    // The outage itself is the scenario: long enough for every back-off to reach its ceiling.
    std::this_thread::sleep_for(30s);

    env_.Broker().Start();
    env_.StartBackend();

    ASSERT_TRUE(env_.WaitForClientLog(kReady, readyBefore + 1, 30s));
    env_.Push();
    EXPECT_TRUE(env_.WaitForClientLog(kUpdated, 1, 30s));
    EXPECT_EQ(env_.StopClient(), 0);
}

}  // namespace
}  // namespace kelvane::e2e
