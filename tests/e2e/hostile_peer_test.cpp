#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "e2e_environment.hpp"
#include "test_support/loopback.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kReady = "All subscriptions and connections ready";
constexpr const char* kFeedbackSent = "Status feedback sent successfully";
constexpr const char* kUpdated = "DLC Update finished successfully.";
constexpr const char* kChallengeId = "TTVI-Kelvane-C003.COzelkDlcChallenge";
constexpr const char* kInlineToken = "token = e2e-bearer-token";
// The client's own footprint; a sanitizer's shadow memory multiplies it, so
// there the figure is only printed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kRssLimitKiB = std::size_t{1} << 40;
#else
constexpr std::size_t kRssLimitKiB = 48 * 1024;
#endif
constexpr auto kExchangeLimit = 75s;

// The most the process ever had resident (VmHWM), in KiB; 0 when unknown.
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

// Runs a tool to its end within 30 s; its exit status.
int RunTool(std::vector<std::string> argv, const std::string& log) {
    testing::ChildProcess tool(testing::ChildProcess::Options{std::move(argv), {}, log});
    return tool.WaitForExit(30s).value_or(-1);
}

class HostilePeers : public ::testing::Test {
protected:
    explicit HostilePeers(const std::string& brokerExtraConfig = "")
        : env_(E2eEnvironment::Options(), brokerExtraConfig) {}

    void TearDown() override {
        if (HasFailure()) {
            std::cout << env_.Logs();
        }
    }

    void StartClientAndWaitUntilReady() {
        env_.StartClient();
        ASSERT_TRUE(env_.WaitForClientLog(kReady)) << env_.Logs();
    }

    // Ignition on with the backend's next challenge answered by `fault`: the
    // update must fail within the exchange limit with `boundLine`, still send
    // its feedback, stay under the memory limit, and the next ignition updates.
    void ExpectChallengeBounded(const std::string& fault, const std::string& boundLine) {
        StartClientAndWaitUntilReady();
        env_.AddBackendFault(fault);
        const auto start = Clock::now();

        env_.Ignition(true);

        ASSERT_TRUE(env_.WaitForClientLog("Error downloading the challenge!", 1, kExchangeLimit));
        const auto took =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
        EXPECT_EQ(env_.ClientLogCount(boundLine), 1U);
        ASSERT_TRUE(env_.WaitForClientLog(kFeedbackSent));
        const auto peak = PeakRssKiB(env_.ClientPid());
        std::cout << fault << ": exchange ended after " << took.count() << " ms, peak RSS " << peak
                  << " KiB\n";
        EXPECT_LT(took, kExchangeLimit);
        EXPECT_LT(peak, kRssLimitKiB);
        ExpectNextIgnitionUpdates();
    }

    void ExpectNextIgnitionUpdates() {
        env_.Ignition(false);
        env_.Ignition(true);
        EXPECT_TRUE(env_.WaitForClientLog(kUpdated, 1, 60s));
        EXPECT_EQ(env_.StopClient(), 0);
    }

    E2eEnvironment env_;
};

TEST_F(HostilePeers, EndlessChallengeResponseEndsAtTheSizeBound) {
    ExpectChallengeBounded("challenge=flood", "HttpConnection: response exceeds 1048576 bytes");
}

TEST_F(HostilePeers, TokenFileWithALineBreakSendsNoRequestAndNamesTheFileNotTheToken) {
    const std::string tokenFile =
        env_.WriteFile("backend.token", "e2e-bearer-token\r\nX-Evil: 1\n");
    ::chmod(tokenFile.c_str(), 0600);
    env_.ReplaceInConnectorConfig(kInlineToken, "token_file = " + tokenFile);
    StartClientAndWaitUntilReady();

    env_.Ignition(true);

    ASSERT_TRUE(env_.WaitForClientLog(
        "Failed to get the Token for 'TTVI-Kelvane-C003.COzelkDlcStatusFeedback'"))
        << env_.Logs();
    EXPECT_EQ(env_.BackendEventCount("\"exchange\""), 0U);
    EXPECT_EQ(env_.ClientLogCount(std::string("token for ") + kChallengeId + " from '" + tokenFile +
                                  "' holds characters"),
              1U);
    EXPECT_EQ(env_.ClientLogCount("X-Evil"), 0U);

    env_.WriteFile("backend.token", "e2e-bearer-token\n");
    ExpectNextIgnitionUpdates();
    EXPECT_EQ(env_.ClientLogCount("can be read by group or others"), 0U);
}

TEST_F(HostilePeers, OversizedPushMessageNeverReachesTheClient) {
    StartClientAndWaitUntilReady();
    const std::string payload = env_.WriteFile("oversized.bin", std::string(16 << 20, 'p'));

    // QoS 1: the broker has queued it for the client before mosquitto_pub ends.
    ASSERT_EQ(
        RunTool({"mosquitto_pub", "-h", "127.0.0.1", "-p", std::to_string(env_.Broker().Port()),
                 "-q", "1", "-t", "TTVI-Kelvane-C003.CTzelkDlcInitiation", "-f", payload},
                payload + ".log"),
        0);
    env_.Push();

    ASSERT_TRUE(env_.WaitForClientLog(kUpdated, 1, 60s)) << env_.Logs();
    const auto peak = PeakRssKiB(env_.ClientPid());
    std::cout << "16 MiB push message: peak RSS " << peak << " KiB\n";
    EXPECT_LT(peak, kRssLimitKiB);
    EXPECT_EQ(env_.ClientLogCount("MqttConnection: Message received"), 1U);
    EXPECT_EQ(env_.StopClient(), 0);
}

// A broker whose certificate names another host, on a TLS listener of its own.
class BrokerCertificate : public HostilePeers {
protected:
    BrokerCertificate() : HostilePeers(TlsListener()) {}

    static std::string TlsListener() {
        IssueServerCertificate("DNS:broker.invalid");
        return "user root\nlistener " + std::to_string(TlsPort()) + " 127.0.0.1\ncafile " +
               Pki().File("ca.pem") + "\ncertfile " + Pki().File("server.pem") + "\nkeyfile " +
               Pki().File("server.key") + "\n";
    }

    static const testing::TemporaryDirectory& Pki() {
        static const testing::TemporaryDirectory directory;
        static const bool made = [] {
            const auto log = directory.File("openssl.log");
            return RunTool({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                            "ec_paramgen_curve:prime256v1", "-nodes", "-keyout",
                            directory.File("ca.key"), "-out", directory.File("ca.pem"), "-days",
                            "2", "-subj", "/CN=e2e-ca"},
                           log) == 0;
        }();
        EXPECT_TRUE(made);
        return directory;
    }

    static std::uint16_t TlsPort() {
        static const std::uint16_t port = testing::FreeTcpPort();
        return port;
    }

    static void IssueServerCertificate(const std::string& subjectAltName) {
        const auto& pki = Pki();
        const auto log = pki.File("openssl.log");
        pki.Write("san.ext", "subjectAltName=" + subjectAltName + "\n");
        EXPECT_EQ(
            RunTool({"openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                     "-nodes", "-keyout", pki.File("server.key"), "-out", pki.File("server.csr"),
                     "-subj", "/CN=broker"},
                    log),
            0);
        EXPECT_EQ(
            RunTool({"openssl", "x509", "-req", "-in", pki.File("server.csr"), "-CA",
                     pki.File("ca.pem"), "-CAkey", pki.File("ca.key"), "-CAcreateserial", "-out",
                     pki.File("server.pem"), "-days", "2", "-extfile", pki.File("san.ext")},
                    log),
            0);
    }
};

TEST_F(BrokerCertificate, ForAnotherNameIsRefusedAndTheRightOneIsAccepted) {
    env_.ReplaceInConnectorConfig(
        "port = " + std::to_string(env_.Broker().Port()) + "\n",
        "port = " + std::to_string(TlsPort()) + "\ntls_ca_file = " + Pki().File("ca.pem") + "\n");
    env_.StartClient();

    ASSERT_TRUE(env_.WaitForClientLog("cannot connect to MQTT broker 127.0.0.1:" +
                                      std::to_string(TlsPort())))
        << env_.Logs();
    EXPECT_EQ(env_.ClientLogCount("VIConnector: MQTT connected"), 0U);

    // Same broker, same CA, a certificate that names the address: accepted.
    IssueServerCertificate("IP:127.0.0.1");
    env_.Broker().Restart();
    EXPECT_TRUE(env_.WaitForClientLog("VIConnector: MQTT connected", 1, 30s));
    EXPECT_EQ(env_.StopClient(), 0);
}

}  // namespace
}  // namespace kelvane::e2e
