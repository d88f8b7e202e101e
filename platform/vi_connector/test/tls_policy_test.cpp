#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "csc_logging/log_capture.hpp"
#include "test_support/child_process.hpp"
#include "test_support/scripted_mqtt_broker.hpp"
#include "test_support/scripted_tcp_server.hpp"
#include "test_support/temporary_directory.hpp"
#include "test_support/test_certificates.hpp"
#include "vi_connector/vi_connector.hpp"

// The transport policy and the certificate checks as the backend and the broker see
// them, against TLS servers of the test's own.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogLevel;
using kelvane::testing::ScriptedMqttBroker;
using kelvane::testing::ScriptedTcpServer;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;

constexpr const char* kId = "TTVI-Kelvane-C003.COzelkDlcChallenge";
constexpr std::uint8_t kConnect = 1;
constexpr std::uint8_t kPingreq = 12;

// Backend and broker on `port`, TLS with `pki`'s CA (for the backend, unless `backendTls`
// says otherwise), started.
std::unique_ptr<VIConnector> StartedConnector(const TemporaryDirectory& pki, std::uint16_t port,
                                              std::string backendTls = "") {
    const std::string ca = pki.File("ca.pem");
    if (backendTls.empty()) {
        backendTls = "ca_file = " + ca + "\n";
    }
    auto connector = std::make_unique<VIConnector>(
        nullptr, nullptr,
        pki.Write("vi.ini", "[backend_tls]\n" + backendTls +
                                "[mqtt]\nport = " + std::to_string(port) + "\ntls_ca_file = " + ca +
                                "\nreconnect_delay_min_ms = 50\nreconnect_delay_max_ms = 200\n"
                                "[transaction " +
                                kId + "]\nurl = https://127.0.0.1:" + std::to_string(port) +
                                "/c\ntoken = t\n"));
    connector->Start();
    connector->Stop();  // joins the start, keeps the configuration
    return connector;
}

// Each refusal is one line naming why, and comes before any request byte.
TEST(TlsPolicyTest, WeakSuitesAndBadCertificatesAreRefusedForBackendAndBrokerBeforeAnyByte) {
    TemporaryDirectory pki;
    kelvane::testing::MakeTestCertificates(pki.Path());
    const struct {
        std::string certificate;
        std::string suite;  // empty: any
        bool demandsClientCertificate;
        std::string refusal;  // of the backend; empty: accepted
    } cases[] = {
        {"server-rsa", "AES256-GCM-SHA384", false, "handshake refused"},   // static RSA, AEAD
        {"server", "ECDHE-ECDSA-AES128-SHA", false, "handshake refused"},  // ECDHE, CBC
        {"server-rsa", "ECDHE-RSA-AES128-GCM-SHA256", false, ""},          // a good suite
        {"unknown-issuer", "", false, "unknown issuer"},
        {"other-name", "", false, "name mismatch"},
        {"expired", "", false, "expired"},
        {"server", "", true, "handshake refused: the server demands a client certificate"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.certificate + " " + row.suite);
        const bool accepted = row.refusal.empty();
        // TLS servers as the row says: a backend and a broker.
        ScriptedMqttBroker::Options options;
        options.certFile = pki.File(row.certificate + ".pem");
        options.keyFile = pki.File(row.certificate + ".key");
        options.suite = row.suite;
        options.clientCaFile = row.demandsClientCertificate ? pki.File("ca.pem") : "";
        ScriptedMqttBroker backend(options);
        ScriptedMqttBroker broker(options);
        csc_logging::LogCapture log;
        const auto sut = StartedConnector(pki, backend.Port());
        ASSERT_EQ(sut->GetSessionStatus(), SessionStatus::kOk) << log.Dump();

        const auto socket = sut->SocketConnect(kId, "127.0.0.1", backend.Port());
        if (socket.fd >= 0) {
            EXPECT_EQ(::write(socket.fd, "\xc0\x00", 2), 2);  // a PINGREQ, to see bytes pass
            EXPECT_EQ(backend.WaitForPackets(kPingreq, 1, 5s).size(), 1U);
            ::close(socket.fd);
        }
        const auto mqtt = StartedConnector(pki, broker.Port());
        ASSERT_EQ(mqtt->PubSubConnect(nullptr), pubsub_status::kInProgress);
        // A refused client tries again: its first attempt has ended by then.
        ASSERT_TRUE(
            WaitUntil([&] { return broker.Connections() >= 2 || broker.Handshakes() == 1; }, 10s));
        // MQTT CONNECT is the first byte the broker would get.
        EXPECT_EQ(broker.WaitForPackets(kConnect, 1, accepted ? 5s : 0s).size(),
                  accepted ? 1U : 0U);
        mqtt->PubSubDisconnect();

        EXPECT_EQ(socket.status == 0, accepted);
        EXPECT_EQ(backend.Handshakes(), accepted ? 1U : 0U);
        EXPECT_EQ(broker.Handshakes(), accepted ? 1U : 0U);
        EXPECT_EQ(log.Count(LogLevel::kError,
                            "VIConnector: TLS to 127.0.0.1:" + std::to_string(backend.Port()) +
                                " failed: " + row.refusal),
                  accepted ? 0U : 1U)
            << log.Dump();
    }
    // A host name is checked as a DNS name: localhost is in "server" only.
    for (const std::string name : {"server", "other-name"}) {
        ScriptedMqttBroker::Options options;
        options.certFile = pki.File(name + ".pem");
        options.keyFile = pki.File(name + ".key");
        ScriptedMqttBroker backend(options);
        csc_logging::LogCapture log;
        const auto socket =
            StartedConnector(pki, 1)->SocketConnect(kId, "localhost", backend.Port());
        EXPECT_EQ(socket.status == 0, name == "server") << log.Dump();
        EXPECT_EQ(log.Count(LogLevel::kError, "failed: name mismatch"), name == "server" ? 0U : 1U);
        if (socket.fd >= 0) {
            ::close(socket.fd);
        }
    }
    // A peer that resets the connection mid-handshake.
    ScriptedTcpServer resetter(ScriptedTcpServer::Script().ReceiveBytes(1));
    csc_logging::LogCapture log;
    EXPECT_EQ(StartedConnector(pki, 1)->SocketConnect(kId, "127.0.0.1", resetter.Port()).fd, -1);
    EXPECT_EQ(log.Count(LogLevel::kError,
                        "VIConnector: TLS to 127.0.0.1:" + std::to_string(resetter.Port()) +
                            " failed: handshake refused"),
              1U)
        << log.Dump();
}

TEST(TlsPolicyTest, BrokenBackendSettingsRejectTheSessionWithOneLineNamingTheProblem) {
    TemporaryDirectory pki;
    kelvane::testing::MakeTestCertificates(pki.Path());
    const auto keyLink = pki.File("key-link");
    ASSERT_EQ(::symlink(pki.File("client.key").c_str(), keyLink.c_str()), 0);
    const std::string cert = "cert_file = " + pki.File("client.pem") + "\n";
    const struct {
        std::string settings;
        std::string problem;
    } cases[] = {
        {"colour = blue\n", "unknown key 'colour' in [backend_tls]"},
        {"min_version = 1.1\n", "min_version='1.1' is neither 1.2 nor 1.3"},
        {cert, "needs both cert_file and key_file"},
        {"ca_file = " + pki.File("missing.pem") + "\n", "cannot load the trust anchors"},
        {cert + "key_file = " + keyLink + "\n", "it is a symbolic link"},
        {cert + "key_file = " + pki.File("server.key") + "\n", "does not match the certificate"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.settings);
        csc_logging::LogCapture log;

        const auto sut = StartedConnector(pki, 1, row.settings);

        EXPECT_EQ(sut->GetSessionStatus(), SessionStatus::kRejected);
        EXPECT_EQ(log.Count(LogLevel::kError, row.problem), 1U) << log.Dump();
    }
}

TEST(TlsPolicyTest, TheBackendKeyIsKeptInTheSecureHeap) {
    TemporaryDirectory pki;
    kelvane::testing::MakeTestCertificates(pki.Path());
    // OpenSSL 3.0 crashes when asked before the heap exists.
    const auto used = [] {
        return CRYPTO_secure_malloc_initialized() == 1
                   ? static_cast<long long>(CRYPTO_secure_used())
                   : 0LL;
    };
    // What a started connector holds there; OpenSSL keeps a few things of its own there too.
    const auto secureBytesOf = [&](const std::string& backendTls) {
        const auto before = used();
        const auto sut = StartedConnector(pki, 1, backendTls);
        EXPECT_EQ(sut->GetSessionStatus(), SessionStatus::kOk);
        return used() - before;
    };
    secureBytesOf("");  // OpenSSL's own first uses

    const auto withKey = secureBytesOf("ca_file = " + pki.File("ca.pem") +
                                       "\ncert_file = " + pki.File("client.pem") +
                                       "\nkey_file = " + pki.File("client.key") + "\n");

    EXPECT_GT(withKey, secureBytesOf(""));
}

}  // namespace
}  // namespace vi_connector
