#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>

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
using testing::ChildProcess;
using testing::TemporaryDirectory;

constexpr const char* kChallenge = "TTVI-Kelvane-C003.COzelkDlcChallenge";
constexpr const char* kToken = "tls-test-token";

class SessionStatusLatch : public vi_connector::VISessionCallbackIf {
public:
    void VIConnectorStatus(vi_connector::SessionStatus status) override {
        std::lock_guard<std::mutex> lock(mutex_);
        status_ = status;
        changed_.notify_all();
    }
    std::optional<vi_connector::SessionStatus> Wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, 5s, [&] { return status_.has_value(); });
        return status_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<vi_connector::SessionStatus> status_;
};

/// Everything the descriptor yields until end of file, or "<time-out>" after 10 s of silence.
std::string ReadToEnd(int fd) {
    std::string data;
    char chunk[4096];
    for (pollfd entry{fd, POLLIN, 0}; ::poll(&entry, 1, 10000) > 0;) {
        const ssize_t got = ::read(fd, chunk, sizeof(chunk));
        if (got <= 0) {
            return data;
        }
        data.append(chunk, static_cast<std::size_t>(got));
    }
    return data + "<time-out>";
}

class BackendTls : public ::testing::Test {
protected:
    static void SetUpTestSuite() { testing::MakeTestCertificates(pki_.Path()); }

    /// A connector whose challenge transaction is https:// on `port`.
    std::unique_ptr<vi_connector::VIConnector> Connector(SessionStatusLatch& latch,
                                                         std::uint16_t port, bool withClientCert) {
        std::string tls = "[backend_tls]\nca_file = " + pki_.File("ca.pem") + "\n";
        if (withClientCert) {
            tls += "cert_file = " + pki_.File("client.pem") +
                   "\nkey_file = " + pki_.File("client.key") + "\n";
        }
        const auto config =
            dir_.Write("vi.ini", tls + "[transaction " + kChallenge +
                                     "]\nurl = https://127.0.0.1:" + std::to_string(port) +
                                     "/zelk/dlc/challenge\ntoken = " + kToken + "\n");
        auto connector = std::make_unique<vi_connector::VIConnector>(&latch, nullptr, config);
        connector->Start();
        EXPECT_EQ(latch.Wait(), vi_connector::SessionStatus::kOk);
        return connector;
    }

    TemporaryDirectory dir_;
    static TemporaryDirectory pki_;
};

TemporaryDirectory BackendTls::pki_;

TEST_F(BackendTls, HandshakeSucceedsOnlyWhenBothSidesCertificatesHoldAndNamesTheReasonOtherwise) {
    const struct {
        std::string serverCert;  // empty: a peer that resets mid-handshake
        bool requireClientCert;
        bool withClientCert;
        std::string failure;  // empty: the exchange works
    } rows[] = {
        {"server", true, true, ""},
        {"unknown-issuer", false, true, "unknown issuer"},
        {"other-name", false, true, "name mismatch"},
        {"expired", false, true, "expired"},
        {"server", true, false, "handshake refused: the server demands a client certificate"},
        {"", false, true, "handshake refused"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.serverCert + ": " + row.failure);
        const auto port = testing::FreeTcpPort();
        const auto events = dir_.File("events-" + std::to_string(port) + ".jsonl");
        std::vector<std::string> argv = {testing::FindProgram("kelvane-backend-sim"),
                                         "run",
                                         "--port",
                                         std::to_string(port),
                                         "--token",
                                         kToken,
                                         "--event-log",
                                         events,
                                         "--tls-cert",
                                         pki_.File(row.serverCert + ".pem"),
                                         "--tls-key",
                                         pki_.File(row.serverCert + ".key")};
        if (row.requireClientCert) {
            argv.insert(argv.end(), {"--tls-client-ca", pki_.File("ca.pem")});
        }
        std::unique_ptr<ChildProcess> backend;
        std::unique_ptr<testing::ScriptedTcpServer> resetter;
        if (row.serverCert.empty()) {
            resetter = std::make_unique<testing::ScriptedTcpServer>(
                testing::ScriptedTcpServer::Script().ReceiveBytes(1).Close());
        } else {
            backend = std::make_unique<ChildProcess>(
                ChildProcess::Options{argv, {}, dir_.File("backend.log")});
            ASSERT_TRUE(testing::WaitUntil([&] { return testing::AcceptsConnections(port); }, 10s));
        }
        const auto target = resetter ? resetter->Port() : port;
        SessionStatusLatch latch;
        auto sut = Connector(latch, target, row.withClientCert);
        csc_logging::LogCapture log;

        const auto socket = sut->SocketConnect(kChallenge, "127.0.0.1", target);

        if (!row.failure.empty()) {
            EXPECT_NE(socket.status, 0U);
            EXPECT_EQ(socket.fd, -1);
            EXPECT_EQ(log.Count(LogLevel::kError,
                                "VIConnector: TLS to 127.0.0.1:" + std::to_string(target) +
                                    " failed: " + row.failure),
                      1U)
                << log.Dump();
            EXPECT_EQ(testing::ReadFile(events).find("\"exchange\":\"challenge\""),
                      std::string::npos);
            continue;
        }
        // The connector carries the client's plain bytes and ends with the server's close.
        ASSERT_EQ(socket.status, 0U);
        const std::string request =
            std::string("GET /zelk/dlc/challenge HTTP/1.1\r\nHost: 127.0.0.1\r\n") +
            "Authorization: Bearer " + kToken + "\r\nConnection: close\r\n\r\n";
        ASSERT_EQ(::write(socket.fd, request.data(), request.size()),
                  static_cast<ssize_t>(request.size()));
        const std::string response = ReadToEnd(socket.fd);
        ::close(socket.fd);
        EXPECT_EQ(response.rfind("HTTP/1.1 ", 0), 0U) << response;
        EXPECT_EQ(response.find("<time-out>"), std::string::npos) << "no end of file";
        EXPECT_NE(testing::ReadFile(events).find("\"exchange\":\"challenge\""), std::string::npos);
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
        SessionStatusLatch latch;
        vi_connector::VIConnector sut(
            &latch, nullptr,
            dir_.Write("broken.ini", "[backend_tls]\n" + row.settings + "[transaction " +
                                         kChallenge +
                                         "]\nurl = https://127.0.0.1:1/c\ntoken = t\n"));

        sut.Start();

        EXPECT_EQ(latch.Wait(), vi_connector::SessionStatus::kRejected);
        EXPECT_EQ(log.Count(LogLevel::kError, row.problem), 1U) << log.Dump();
    }
}

}  // namespace
}  // namespace kelvane::e2e
