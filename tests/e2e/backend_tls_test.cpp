#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
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
// settings and handshakes that must fail, each with one line naming why.
TEST(BackendTls, BrokenSettingsAndRefusedHandshakesFailBeforeAnyRequestNamingTheReason) {
    testing::TemporaryDirectory pki;
    testing::MakeTestCertificates(pki.Path());
    const auto keyLink = pki.File("key-link");
    ASSERT_EQ(::symlink(pki.File("client.key").c_str(), keyLink.c_str()), 0);
    const std::string cert = "cert_file = " + pki.File("client.pem") + "\n";
    const auto start = [&](SessionLatch& latch, const std::string& tls, std::uint16_t port) {
        auto sut = std::make_unique<vi_connector::VIConnector>(
            &latch, nullptr,
            pki.Write("vi.ini", "[backend_tls]\n" + tls + "[transaction " + kChallenge +
                                    "]\nurl = https://127.0.0.1:" + std::to_string(port) +
                                    "/c\ntoken = t\n"));
        sut->Start();
        return sut;
    };
    const struct {
        std::string settings;
        std::string problem;
    } broken[] = {
        {"colour = blue\n", "unknown key 'colour' in [backend_tls]"},
        {"min_version = 1.1\n", "min_version='1.1' is neither 1.2 nor 1.3"},
        {cert, "needs both cert_file and key_file"},
        {"ca_file = " + pki.File("missing.pem") + "\n", "cannot load the trust anchors"},
        {cert + "key_file = " + keyLink + "\n", "it is a symbolic link"},
        {cert + "key_file = " + pki.File("server.key") + "\n", "does not match the certificate"},
    };
    for (const auto& row : broken) {
        SCOPED_TRACE(row.settings);
        csc_logging::LogCapture log;
        SessionLatch latch;

        const auto sut = start(latch, row.settings, 1);

        EXPECT_TRUE(latch.WaitFor(SessionStatus::kRejected));
        EXPECT_EQ(log.Count(LogLevel::kError, row.problem), 1U) << log.Dump();
    }

    const struct {
        std::string serverCert;  // empty: a peer that resets mid-handshake
        bool requireClientCert;
        bool withClientCert;
        std::string reason;
    } refused[] = {
        {"unknown-issuer", false, true, "unknown issuer"},
        {"other-name", false, true, "name mismatch"},
        {"expired", false, true, "expired"},
        {"server", true, false, "handshake refused: the server demands a client certificate"},
        {"", false, true, "handshake refused"},
    };
    for (const auto& row : refused) {
        SCOPED_TRACE(row.reason);
        testing::ScriptedTcpServer resetter(testing::ScriptedTcpServer::Script().ReceiveBytes(1));
        const auto port = row.serverCert.empty() ? resetter.Port() : testing::FreeTcpPort();
        const auto events = pki.File("events-" + std::to_string(port) + ".jsonl");
        std::vector<std::string> argv = {testing::FindProgram("kelvane-backend-sim"), "run",
                                         "--port", std::to_string(port)};
        argv.insert(argv.end(),
                    {"--event-log", events, "--tls-cert", pki.File(row.serverCert + ".pem"),
                     "--tls-key", pki.File(row.serverCert + ".key")});
        if (row.requireClientCert) {
            argv.insert(argv.end(), {"--tls-client-ca", pki.File("ca.pem")});
        }
        std::optional<testing::ChildProcess> backend;
        if (!row.serverCert.empty()) {
            backend.emplace(testing::ChildProcess::Options{argv, {}, pki.File("backend.log")});
            ASSERT_TRUE(testing::WaitUntil([&] { return testing::AcceptsConnections(port); }, 10s));
        }
        SessionLatch latch;
        const auto sut = start(
            latch,
            "ca_file = " + pki.File("ca.pem") + "\n" +
                (row.withClientCert ? cert + "key_file = " + pki.File("client.key") + "\n" : ""),
            port);
        ASSERT_TRUE(latch.WaitFor(SessionStatus::kOk));
        csc_logging::LogCapture log;

        const auto socket = sut->SocketConnect(kChallenge, "127.0.0.1", port);

        EXPECT_NE(socket.status, 0U);
        EXPECT_EQ(socket.fd, -1);
        EXPECT_EQ(log.Count(LogLevel::kError, "VIConnector: TLS to 127.0.0.1:" +
                                                  std::to_string(port) + " failed: " + row.reason),
                  1U)
            << log.Dump();
        EXPECT_EQ(testing::ReadFile(events).find("\"exchange\":\"challenge\""), std::string::npos);
    }
}

}  // namespace
}  // namespace kelvane::e2e
