#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <optional>

#include "csc_logging/log_capture.hpp"
#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/scripted_tcp_server.hpp"
#include "test_support/temporary_directory.hpp"
#include "test_support/test_certificates.hpp"
#include "vi_connector/vi_connector.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogLevel;
using testing::TemporaryDirectory;
using vi_connector::SessionStatus;

constexpr const char* kChallenge = "TTVI-Kelvane-C003.COzelkDlcChallenge";

struct SessionLatch : vi_connector::VISessionCallbackIf {
    void VIConnectorStatus(SessionStatus status) override { reported = static_cast<int>(status); }
    bool WaitFor(SessionStatus status) {
        return testing::WaitUntil([&] { return reported == static_cast<int>(status); }, 5s);
    }
    std::atomic<int> reported{-1};
};

// The whole update over mutual TLS runs in the e2e scenarios; these are the
// handshakes and settings that must fail, each with one line naming why.
class BackendTls : public ::testing::Test {
protected:
    static void SetUpTestSuite() { testing::MakeTestCertificates(pki_.Path()); }

    TemporaryDirectory dir_;
    static TemporaryDirectory pki_;
};

TemporaryDirectory BackendTls::pki_;

TEST_F(BackendTls, HandshakeRefusedByEitherSideFailsBeforeAnyRequestNamingTheReason) {
    const struct {
        std::string serverCert;  // empty: a peer that resets mid-handshake
        bool requireClientCert;
        bool withClientCert;
        std::string reason;
    } rows[] = {
        {"unknown-issuer", false, true, "unknown issuer"},
        {"other-name", false, true, "name mismatch"},
        {"expired", false, true, "expired"},
        {"server", true, false, "handshake refused: the server demands a client certificate"},
        {"", false, true, "handshake refused"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reason);
        testing::ScriptedTcpServer resetter(testing::ScriptedTcpServer::Script().ReceiveBytes(1));
        const auto port = row.serverCert.empty() ? resetter.Port() : testing::FreeTcpPort();
        const auto events = dir_.File("events-" + std::to_string(port) + ".jsonl");
        std::vector<std::string> argv = {testing::FindProgram("kelvane-backend-sim"), "run",
                                         "--port", std::to_string(port)};
        argv.insert(argv.end(),
                    {"--event-log", events, "--tls-cert", pki_.File(row.serverCert + ".pem"),
                     "--tls-key", pki_.File(row.serverCert + ".key")});
        if (row.requireClientCert) {
            argv.insert(argv.end(), {"--tls-client-ca", pki_.File("ca.pem")});
        }
        std::optional<testing::ChildProcess> backend;
        if (!row.serverCert.empty()) {
            backend.emplace(testing::ChildProcess::Options{argv, {}, dir_.File("backend.log")});
            ASSERT_TRUE(testing::WaitUntil([&] { return testing::AcceptsConnections(port); }, 10s));
        }
        const std::string client = "cert_file = " + pki_.File("client.pem") +
                                   "\nkey_file = " + pki_.File("client.key") + "\n";
        SessionLatch latch;
        vi_connector::VIConnector sut(
            &latch, nullptr,
            dir_.Write("vi.ini", "[backend_tls]\nca_file = " + pki_.File("ca.pem") + "\n" +
                                     (row.withClientCert ? client : "") + "[transaction " +
                                     kChallenge + "]\nurl = https://127.0.0.1:" +
                                     std::to_string(port) + "/c\ntoken = t\n"));
        sut.Start();
        ASSERT_TRUE(latch.WaitFor(SessionStatus::kOk));
        csc_logging::LogCapture log;

        const auto socket = sut.SocketConnect(kChallenge, "127.0.0.1", port);

        EXPECT_NE(socket.status, 0U);
        EXPECT_EQ(socket.fd, -1);
        EXPECT_EQ(log.Count(LogLevel::kError, "VIConnector: TLS to 127.0.0.1:" +
                                                  std::to_string(port) + " failed: " + row.reason),
                  1U)
            << log.Dump();
        EXPECT_EQ(testing::ReadFile(events).find("\"exchange\":\"challenge\""), std::string::npos);
    }
}

TEST_F(BackendTls, BrokenTlsSettingsRejectTheConfigurationWithOneLineNamingTheProblem) {
    const auto keyLink = dir_.File("key-link");
    ASSERT_EQ(::symlink(pki_.File("client.key").c_str(), keyLink.c_str()), 0);
    const std::string client = "cert_file = " + pki_.File("client.pem") + "\n";
    const struct {
        std::string settings;
        std::string problem;
    } rows[] = {
        {"colour = blue\n", "unknown key 'colour' in [backend_tls]"},
        {"min_version = 1.1\n", "min_version='1.1' is neither 1.2 nor 1.3"},
        {client, "needs both cert_file and key_file"},
        {"ca_file = " + dir_.File("missing.pem") + "\n", "cannot load the trust anchors"},
        {client + "key_file = " + keyLink + "\n", "it is a symbolic link"},
        {client + "key_file = " + pki_.File("server.key") + "\n", "does not match the certificate"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.settings);
        csc_logging::LogCapture log;
        SessionLatch latch;
        vi_connector::VIConnector sut(
            &latch, nullptr,
            dir_.Write("broken.ini", "[backend_tls]\n" + row.settings + "[transaction " +
                                         kChallenge +
                                         "]\nurl = https://127.0.0.1:1/c\ntoken = t\n"));

        sut.Start();

        EXPECT_TRUE(latch.WaitFor(SessionStatus::kRejected));
        EXPECT_EQ(log.Count(LogLevel::kError, row.problem), 1U) << log.Dump();
    }
}

}  // namespace
}  // namespace kelvane::e2e
