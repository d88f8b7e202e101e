#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <thread>

#include "e2e_environment.hpp"
#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/process_memory.hpp"
#include "test_support/test_certificates.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;

constexpr const char* kStarted = "DLC Update Started";
// The broker's SUBACK: from here on a push reaches the client.
constexpr const char* kSubscribed =
    "Subscribe acknowledged to topic TTVI-Kelvane-C003.CTzelkDlcInitiation, status 0";
constexpr const char* kStillValid =
    "Certificate is valid for more than one year, no DLC Update needed";

// A token read from a file lives only while its request is built and sent. A
// freed copy's first 16 bytes hold malloc's list pointers, so the tail is sought.
std::size_t TokenCopiesASecondLater(const E2eEnvironment& env) {
    std::this_thread::sleep_for(1s);
    return testing::CountInProcessMemory(env.Client().Pid(), std::string(kToken).substr(16));
}

// Switches the ignition off and on again, the backend's next answers first given `faults`.
void IgnitionAgain(E2eEnvironment& env, std::initializer_list<const char*> faults = {}) {
    env.Ignition(false);
    for (const char* fault : faults) {
        env.AddBackendFault(fault);
    }
    env.Ignition(true);
}

// Whether the client reports itself ready once more after `outage`.
template <typename Outage>
bool ReadyAgainAfter(E2eEnvironment& env, Outage outage) {
    const auto ready = env.ClientLogCount(kReady);
    outage();
    return env.WaitForClientLog(kReady, ready + 1, 30s);
}

// The Base certificate expires within the year, so every ignition tries again:
// each failure sends its feedback (where it can) and leaves the key store as it
// was, and the walk ends with an update that a SIGTERM does not cut short.
TEST(Scenarios, EachFailureLeavesTheKeyStoreAndTheNextIgnitionTriesAgain) {
    E2eEnvironment env;
    env.StopBackend();
    const std::string tokenFile = env.UseTokenFile();
    const auto before = env.VehicleStatus();
    env.StartClient();

    // No backend yet: the update waits for it, then its download fails.
    ASSERT_TRUE(env.WaitForClientLog("MQTT subscribe handling ignored! Connection state: 1"));
    // The token in its memory reaches no core file and no other process of its user.
    EXPECT_EQ(env.ClientCoreFileLimits(), "0 0");
    EXPECT_FALSE(env.ClientOpenToItsUser());
    env.Ignition(true);
    ASSERT_TRUE(env.WaitForClientLog("DLC Update pending! Connection state: 1"));
    EXPECT_EQ(env.ClientLogCount(kStarted), 0U);
    env.StartBackend({"download=status:500"});
    ASSERT_TRUE(env.WaitForClientLog(kFeedbackSent));
    EXPECT_EQ(env.ClientLogCount("Error downloading the container!"), 1U);
    EXPECT_EQ(TokenCopiesASecondLater(env), 0U);
    // Ready once the push topic is subscribed, which waited for the backend too.
    EXPECT_TRUE(env.WaitForClientLog(kReady, 1, 10s));

    // A token file with a line break: no request leaves, the log names the file, not the token.
    std::ofstream(tokenFile) << kToken << "\r\nX-Evil: 1\n";
    const auto exchanges = env.BackendEventCount("\"exchange\"");
    IgnitionAgain(env);
    ASSERT_TRUE(env.WaitForClientLog(
        "Failed to get the Token for 'TTVI-Kelvane-C003.COzelkDlcStatusFeedback'"));
    EXPECT_EQ(env.BackendEventCount("\"exchange\""), exchanges);
    EXPECT_EQ(env.ClientLogCount("token for TTVI-Kelvane-C003.COzelkDlcChallenge from '" +
                                 tokenFile + "' holds characters"),
              1U);
    EXPECT_EQ(env.ClientLogCount("X-Evil"), 0U);
    EXPECT_EQ(TokenCopiesASecondLater(env), 0U);  // nor does a refused one
    std::ofstream(tokenFile) << kToken << "\n";

    // A status line without digits ends the process; the service manager starts it again.
    IgnitionAgain(env, {"challenge=no-digits"});
    const auto exit = env.Client().WaitForExit(20s);
    ASSERT_TRUE(exit.has_value());
    EXPECT_NE(*exit, 0);
    env.Ignition(false);
    ASSERT_TRUE(ReadyAgainAfter(env, [&] { env.StartClient(); }));

    // The vehicle dies inside HandleDlc: its store stays whole, at the generation it had.
    const auto feedbacks = env.ClientLogCount("Status feedback sent");
    env.VehicleCommand({"fail", "stall"});
    env.Ignition(true);
    ASSERT_TRUE(testing::WaitUntil(
        [&] { return env.VehicleLog().find("fail point stalls") != std::string::npos; }, 30s));
    env.KillVehicle();
    EXPECT_EQ(env.VehicleStatus().at("trainingCounter"), before.at("trainingCounter"));
    EXPECT_EQ(env.VehicleStatus().at("pssHash"), before.at("pssHash"));
    // The lost call either ends the client by its designed path or is logged as a failed update.
    if (env.Client().WaitForExit(20s)) {
        env.StartClient();
    } else {
        EXPECT_TRUE(env.WaitForClientLog("Status feedback sent", feedbacks + 1, 5s));
    }
    ASSERT_TRUE(ReadyAgainAfter(env, [&] { env.StartVehicle(); }));

    // SIGTERM while the client waits for the download: the update finishes, then the client exits.
    const auto challenges = env.ClientLogCount("Challenge received successfully");
    IgnitionAgain(env, {"download=delay:3000"});
    ASSERT_TRUE(env.WaitForClientLog("Challenge received successfully", challenges + 1));
    EXPECT_EQ(env.Client().Stop(10s), 0);
    EXPECT_EQ(env.ClientLogCount(kUpdated), 1U);
    EXPECT_EQ(env.VehicleStatus().at("trainingCounter"),
              before.at("trainingCounter").get<int>() + 1);
    EXPECT_EQ(env.BackendEventCount("\"outcome\":\"updated\""), 1U);
}

// A healthy vehicle over TLS to both backend and broker: both triggers, the rules
// between them, and every peer going away under the client and coming back.
TEST(Scenarios, TriggersUpdateAsTheRulesSayAndSurviveEveryPeersRestart) {
    testing::TemporaryDirectory pki;
    testing::MakeTestCertificates(pki.Path());
    const auto port = std::to_string(testing::FreeTcpPort());
    E2eEnvironment env(pki.Path(), "user root\nlistener " + port + " 127.0.0.1\ncafile " +
                                       pki.File("ca.pem") + "\ncertfile " + pki.File("server.pem") +
                                       "\nkeyfile " + pki.File("server.key") + "\n");
    env.ReplaceInConnectorConfig("port = " + std::to_string(env.Broker().Port()) + "\n",
                                 "port = " + port + "\ntls_ca_file = " + pki.File("ca.pem") + "\n");
    env.UseTokenFile();
    const auto before = env.VehicleStatus();
    env.StartClient();

    ASSERT_TRUE(env.WaitForClientLog(kReady, 1, 30s));
    ASSERT_TRUE(env.WaitForClientLog(kSubscribed));

    // Ignition renews the expiring certificate once.
    env.Ignition(true);
    ASSERT_TRUE(env.WaitForClientLog(kFeedbackSent));
    EXPECT_EQ(env.ClientLogCount(kUpdated), 1U);
    EXPECT_EQ(TokenCopiesASecondLater(env), 0U);
    EXPECT_EQ(env.VehicleStatus().at("trainingCounter"),
              before.at("trainingCounter").get<int>() + 1);
    EXPECT_NE(env.VehicleStatus().at("baseCertificateNotAfter"),
              before.at("baseCertificateNotAfter"));

    // The bus goes away while idle: the clamp service comes back with it, and the next
    // ignition finds the renewed certificate valid.
    ASSERT_TRUE(ReadyAgainAfter(env, [&] {
        env.Bus().Stop();
        EXPECT_TRUE(
            env.WaitForClientLog("Clamp Control Service connection state has changed to 0"));
        env.Bus().Start();
    }));
    EXPECT_EQ(env.VehicleLog().find("terminate called"), std::string::npos);
    IgnitionAgain(env);
    ASSERT_TRUE(env.WaitForClientLog(kStillValid));

    // Broker and backend gone long enough for every back-off to reach its ceiling.
    const auto subscriptions = env.ClientLogCount(kSubscribed);
    ASSERT_TRUE(ReadyAgainAfter(env, [&] {
        env.Broker().Stop();
        env.StopBackend();
        EXPECT_TRUE(env.WaitForClientLog("MQTT link to"));
        std::this_thread::sleep_for(30s);
        env.Broker().Start();
        env.StartBackend();
        EXPECT_TRUE(env.WaitForClientLog("MQTT Re-Subscription request was received"));
    }));
    ASSERT_TRUE(env.WaitForClientLog(kSubscribed, subscriptions + 1));
    const auto feedbacks = env.ClientLogCount("Status feedback sent");
    env.Push();
    ASSERT_TRUE(env.WaitForClientLog(kUpdated, 2, 30s));
    // The feedback still asks the vehicle for its identity; the restart below is one while idle.
    ASSERT_TRUE(env.WaitForClientLog("Status feedback sent", feedbacks + 1));

    // The key-management service restarts; the third push after a pushed update updates.
    ASSERT_TRUE(ReadyAgainAfter(env, [&] {
        env.StopVehicle();
        env.StartVehicle();
    }));
    for (int i = 0; i < 3; ++i) {
        env.Push();
    }
    ASSERT_TRUE(env.WaitForClientLog(kUpdated, 3, 30s));

    // A burst of pushes starts updates only as the rules allow, and loses none of them.
    const auto messages = env.ClientLogCount("MQTT Message was received");
    const auto startedBefore = env.ClientLogCount(kStarted);
    const auto ignoredBefore = env.ClientLogCount(" Ignored!");
    for (int i = 0; i < 100; ++i) {
        env.Push();
    }
    ASSERT_TRUE(env.WaitForClientLog("MQTT Message was received", messages + 100, 60s));
    ASSERT_TRUE(env.WaitForClientLog(kFeedbackSent, env.ClientLogCount(kStarted), 30s));
    const auto started = env.ClientLogCount(kStarted) - startedBefore;
    EXPECT_LE(started, 34U);
    EXPECT_GE(env.ClientLogCount(" Ignored!") - ignoredBefore, 2 * started);
    EXPECT_EQ(env.BackendEventCount("\"exchange\":\"feedback\""), env.ClientLogCount(kStarted));
    EXPECT_EQ(env.Client().Stop(), 0);
}

}  // namespace
}  // namespace kelvane::e2e
