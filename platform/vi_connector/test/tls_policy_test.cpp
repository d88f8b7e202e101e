#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "csc_logging/log_capture.hpp"
#include "test_support/child_process.hpp"
#include "test_support/scripted_mqtt_broker.hpp"
#include "test_support/temporary_directory.hpp"
#include "test_support/test_certificates.hpp"
#include "vi_connector/vi_connector.hpp"

// The transport policy as the backend and the broker see it, against TLS servers of
// the test's own. Verification of the backend's certificate is driven in backend_tls.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ScriptedMqttBroker;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;

constexpr const char* kId = "TTVI-Kelvane-C003.COzelkDlcChallenge";
constexpr std::uint8_t kConnect = 1;
constexpr std::uint8_t kPingreq = 12;

// Backend and broker on `port`, TLS with `pki`'s CA, started.
std::unique_ptr<VIConnector> StartedConnector(const TemporaryDirectory& pki, std::uint16_t port,
                                              const std::string& extraBackendTls = "") {
    const std::string ca = pki.File("ca.pem");
    auto connector = std::make_unique<VIConnector>(
        nullptr, nullptr,
        pki.Write("vi.ini", "[backend_tls]\nca_file = " + ca + "\n" + extraBackendTls +
                                "[mqtt]\nport = " + std::to_string(port) + "\ntls_ca_file = " + ca +
                                "\nreconnect_delay_min_ms = 50\nreconnect_delay_max_ms = 200\n"
                                "[transaction " +
                                kId + "]\nurl = https://127.0.0.1:" + std::to_string(port) +
                                "/c\ntoken = t\n"));
    connector->Start();
    connector->Stop();  // joins the start, keeps the configuration
    return connector;
}

TEST(TlsPolicyTest, SuitesWithoutEcdheOrAeadAreRefusedForBackendAndBrokerBeforeAnyRequestByte) {
    TemporaryDirectory pki;
    kelvane::testing::MakeTestCertificates(pki.Path());
    const struct {
        std::string certificate;
        std::string suite;
        bool accepted;
    } cases[] = {
        {"server-rsa", "AES128-SHA", false},                  // static RSA, CBC
        {"server-rsa", "AES256-GCM-SHA384", false},           // static RSA, AEAD
        {"server", "ECDHE-ECDSA-AES128-SHA", false},          // ECDHE, CBC
        {"server-rsa", "ECDHE-RSA-AES128-GCM-SHA256", true},  // the same server, a good suite
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.suite);
        // TLS 1.2 servers that offer the one suite: a backend and a broker.
        ScriptedMqttBroker::Options options{false,
                                            "",
                                            false,
                                            "",
                                            pki.File(row.certificate + ".pem"),
                                            pki.File(row.certificate + ".key"),
                                            row.suite};
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
        EXPECT_EQ(broker.WaitForPackets(kConnect, 1, row.accepted ? 5s : 0s).size(),
                  row.accepted ? 1U : 0U);
        mqtt->PubSubDisconnect();

        EXPECT_EQ(socket.status == 0, row.accepted);
        EXPECT_EQ(backend.Handshakes(), row.accepted ? 1U : 0U);
        EXPECT_EQ(broker.Handshakes(), row.accepted ? 1U : 0U);
        EXPECT_EQ(log.Contains("TLS to 127.0.0.1:" + std::to_string(backend.Port()) +
                               " failed: handshake refused"),
                  !row.accepted)
            << log.Dump();
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

    const auto withKey = secureBytesOf("cert_file = " + pki.File("client.pem") +
                                       "\nkey_file = " + pki.File("client.key") + "\n");

    EXPECT_GT(withKey, secureBytesOf(""));
}

}  // namespace
}  // namespace vi_connector
