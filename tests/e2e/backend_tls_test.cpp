#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>

#include "csc_logging/log_capture.hpp"
#include "e2e_environment.hpp"
#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/scripted_tcp_server.hpp"
#include "test_support/temporary_directory.hpp"
#include "test_support/test_certificates.hpp"
#include "vi_connector/vi_connector.hpp"

namespace kelvane::e2e {
namespace {

using namespace std::chrono_literals;
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
    bool WaitForOk() { return Wait() == vi_connector::SessionStatus::kOk; }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<vi_connector::SessionStatus> status_;
};

class BackendTls : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        pki_ = std::make_unique<TemporaryDirectory>();
        testing::MakeTestCertificates(pki_->Path());
    }
    static void TearDownTestSuite() { pki_.reset(); }

    static std::string Pki(const std::string& name) { return pki_->File(name); }

    /// The backend simulator serving HTTPS with certificate `name`.
    void StartBackend(const std::string& name, bool requireClientCertificate) {
        port_ = testing::FreeTcpPort();
        std::vector<std::string> argv = {testing::FindProgram("kelvane-backend-sim"),
                                         "run",
                                         "--port",
                                         std::to_string(port_),
                                         "--token",
                                         kToken,
                                         "--event-log",
                                         dir_.File("events.jsonl"),
                                         "--tls-cert",
                                         Pki(name + ".pem"),
                                         "--tls-key",
                                         Pki(name + ".key")};
        if (requireClientCertificate) {
            argv.insert(argv.end(), {"--tls-client-ca", Pki("ca.pem")});
        }
        backend_ = std::make_unique<ChildProcess>(
            ChildProcess::Options{argv, {}, dir_.File("backend.log")});
        ASSERT_TRUE(testing::WaitUntil([&] { return testing::AcceptsConnections(port_); }, 10s))
            << testing::ReadFile(dir_.File("backend.log"));
    }

    /// A started connector whose challenge transaction is https:// on `port`.
    std::unique_ptr<vi_connector::VIConnector> Connector(bool withClientCertificate) {
        std::string tls = "[backend_tls]\nca_file = " + Pki("ca.pem") + "\n";
        if (withClientCertificate) {
            tls += "cert_file = " + Pki("client.pem") + "\nkey_file = " + Pki("client.key") + "\n";
        }
        const auto config =
            dir_.Write("vi.ini", tls + "[transaction " + kChallenge +
                                     "]\nurl = https://127.0.0.1:" + std::to_string(port_) +
                                     "/zelk/dlc/challenge\ntoken = " + kToken + "\n");
        auto connector = std::make_unique<vi_connector::VIConnector>(&latch_, nullptr, config);
        connector->Start();
        EXPECT_TRUE(latch_.WaitForOk());
        return connector;
    }

    std::string BackendEvents() const { return testing::ReadFile(dir_.File("events.jsonl")); }

    TemporaryDirectory dir_;
    SessionStatusLatch latch_;
    std::uint16_t port_ = 0;
    std::unique_ptr<ChildProcess> backend_;
    static std::unique_ptr<TemporaryDirectory> pki_;
};

std::unique_ptr<TemporaryDirectory> BackendTls::pki_;

/// Everything the descriptor yields until end of file (bounded).
std::string ReadToEnd(int fd) {
    std::string data;
    char chunk[4096];
    for (;;) {
        pollfd entry{fd, POLLIN, 0};
        if (::poll(&entry, 1, 10000) <= 0) {
            return data + "<time-out>";
        }
        const ssize_t got = ::read(fd, chunk, sizeof(chunk));
        if (got <= 0) {
            return data;
        }
        data.append(chunk, static_cast<std::size_t>(got));
    }
}

TEST_F(BackendTls, MutualTlsCarriesTheClientsPlainBytesAndEndsWithTheServersClose) {
    StartBackend("server", true);
    auto sut = Connector(true);

    const auto socket = sut->SocketConnect(kChallenge, "127.0.0.1", port_);

    ASSERT_EQ(socket.status, 0U);
    ASSERT_GE(socket.fd, 0);
    const std::string request =
        std::string("GET /zelk/dlc/challenge HTTP/1.1\r\nHost: 127.0.0.1\r\n") +
        "Authorization: Bearer " + kToken + "\r\nConnection: close\r\n\r\n";
    ASSERT_EQ(::write(socket.fd, request.data(), request.size()),
              static_cast<ssize_t>(request.size()));
    const std::string response = ReadToEnd(socket.fd);
    ::close(socket.fd);
    EXPECT_EQ(response.rfind("HTTP/1.1 ", 0), 0U) << response;
    EXPECT_EQ(response.find("<time-out>"), std::string::npos) << "no end of file after the answer";
    EXPECT_NE(BackendEvents().find("\"exchange\":\"challenge\""), std::string::npos);
}

struct Refusal {
    const char* name;
    const char* serverCertificate;
    bool requireClientCertificate;
    bool withClientCertificate;
    const char* reason;
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
    *out << refusal.name;
}

class BackendTlsRefusal : public BackendTls, public ::testing::WithParamInterface<Refusal> {};

TEST_P(BackendTlsRefusal, FailsBeforeAnyRequestWithOneLineNamingHostAndReason) {
    const auto& refusal = GetParam();
    StartBackend(refusal.serverCertificate, refusal.requireClientCertificate);
    auto sut = Connector(refusal.withClientCertificate);
    csc_logging::LogCapture log;

    const auto socket = sut->SocketConnect(kChallenge, "127.0.0.1", port_);

    EXPECT_NE(socket.status, 0U);
    EXPECT_EQ(socket.fd, -1);
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kError,
                        "VIConnector: TLS to 127.0.0.1:" + std::to_string(port_) +
                            " failed: " + refusal.reason),
              1U)
        << log.Dump();
    EXPECT_EQ(BackendEvents().find("\"exchange\":\"challenge\""), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, BackendTlsRefusal,
    ::testing::Values(Refusal{"UnknownIssuer", "unknown-issuer", false, true, "unknown issuer"},
                      Refusal{"NameMismatch", "other-name", false, true, "name mismatch"},
                      Refusal{"Expired", "expired", false, true, "expired"},
                      Refusal{"NoClientCertificate", "server", true, false,
                              "handshake refused: the server demands a client certificate"}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(BackendTls, PeerThatResetsMidHandshakeIsRefusedAndTheConnectorStillWorks) {
    testing::ScriptedTcpServer resetter(
        testing::ScriptedTcpServer::Script().ReceiveBytes(1).Close());
    port_ = resetter.Port();
    auto sut = Connector(true);
    csc_logging::LogCapture log;

    const auto refused = sut->SocketConnect(kChallenge, "127.0.0.1", port_);

    EXPECT_NE(refused.status, 0U);
    EXPECT_EQ(refused.fd, -1);
    EXPECT_TRUE(log.Contains(csc_logging::LogLevel::kError, "failed: handshake refused"))
        << log.Dump();
}

TEST_F(BackendTls, BrokenTlsSettingsRejectTheConfigurationWithOneLineNamingTheProblem) {
    const auto keyLink = dir_.File("key-link");
    ASSERT_EQ(::symlink(Pki("client.key").c_str(), keyLink.c_str()), 0);
    const std::string client = "cert_file = " + Pki("client.pem") + "\n";
    const struct {
        std::string settings;
        std::string problem;
    } cases[] = {
        {"colour = blue\n", "unknown key 'colour' in [backend_tls]"},
        {"min_version = 1.1\n", "min_version='1.1' is neither 1.2 nor 1.3"},
        {client, "needs both cert_file and key_file"},
        {"ca_file = " + dir_.File("missing.pem") + "\n", "cannot load the trust anchors"},
        {client + "key_file = " + keyLink + "\n", "it is a symbolic link"},
        {client + "key_file = " + Pki("server.key") + "\n", "does not match the certificate"},
    };
    for (const auto& broken : cases) {
        SCOPED_TRACE(broken.settings);
        csc_logging::LogCapture log;
        SessionStatusLatch latch;
        const auto config = dir_.Write("broken.ini", "[backend_tls]\n" + broken.settings +
                                                         "[transaction " + kChallenge +
                                                         "]\nurl = https://127.0.0.1:1/c\n"
                                                         "token = t\n");
        vi_connector::VIConnector sut(&latch, nullptr, config);

        sut.Start();

        EXPECT_EQ(latch.Wait(), vi_connector::SessionStatus::kRejected);
        EXPECT_EQ(log.Count(csc_logging::LogLevel::kError, broken.problem), 1U) << log.Dump();
    }
}

TEST_F(BackendTls, RealClientUpdatesOverMutualTls) {
    E2eEnvironment::Options options;
    options.tlsDirectory = pki_->Path();
    E2eEnvironment env(options);
    env.StartClient();
    ASSERT_TRUE(env.WaitForClientLog("All subscriptions and connections ready")) << env.Logs();

    env.Ignition(true);

    ASSERT_TRUE(env.WaitForClientLog("Status feedback sent successfully")) << env.Logs();
    EXPECT_EQ(env.ClientLogCount("DLC Update finished successfully."), 1U) << env.Logs();
    EXPECT_EQ(env.BackendEventCount("\"exchange\":\"feedback\""), 1U);
}

}  // namespace
}  // namespace kelvane::e2e
