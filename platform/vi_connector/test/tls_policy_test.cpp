#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "openssl_handles.hpp"
#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"
#include "test_support/test_certificates.hpp"
#include "unique_fd/unique_fd.hpp"
#include "vi_connector/vi_connector.hpp"

// The transport policy as the backend and the broker see it, against TLS servers of
// the test's own. Verification of the backend's certificate is driven in backend_tls.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;
using unique_fd::UniqueFd;

constexpr const char* kId = "TTVI-Kelvane-C003.COzelkDlcChallenge";

// A TLS 1.2 server on 127.0.0.1 that offers one suite only and serves one
// connection at a time: it counts the connections and the completed handshakes,
// and keeps every byte received after one.
class SingleSuiteTlsServer {
public:
    SingleSuiteTlsServer(const std::string& certificate, const std::string& key,
                         const std::string& suite)
        : context_(SSL_CTX_new(TLS_server_method())) {
        // The server's own security level must not be what refuses a suite.
        SSL_CTX* context = context_.get();
        if (context == nullptr || SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION) != 1 ||
            SSL_CTX_set_cipher_list(context, (suite + ":@SECLEVEL=0").c_str()) != 1 ||
            SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1) {
            throw std::runtime_error("SingleSuiteTlsServer: cannot serve " + suite);
        }
        listenFd_.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        int wake[2];
        if (::bind(listenFd_.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listenFd_.Get(), 4) != 0 ||
            ::getsockname(listenFd_.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
            ::pipe2(wake, O_CLOEXEC) != 0) {
            throw std::runtime_error("SingleSuiteTlsServer: cannot listen");
        }
        wakeRead_.Reset(wake[0]);
        wakeWrite_.Reset(wake[1]);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { Serve(); });
    }

    ~SingleSuiteTlsServer() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            if (connectionFd_ >= 0) {
                ::shutdown(connectionFd_, SHUT_RDWR);
            }
        }
        [[maybe_unused]] const auto woken = ::write(wakeWrite_.Get(), "x", 1);
        thread_.join();
    }

    SingleSuiteTlsServer(const SingleSuiteTlsServer&) = delete;
    SingleSuiteTlsServer& operator=(const SingleSuiteTlsServer&) = delete;

    std::uint16_t Port() const { return port_; }
    int Connections() const { return connections_; }
    int Handshakes() const { return handshakes_; }
    std::string Received() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }

private:
    void Serve() {
        for (;;) {
            pollfd ready[2] = {{listenFd_.Get(), POLLIN, 0}, {wakeRead_.Get(), POLLIN, 0}};
            if (::poll(ready, 2, -1) < 0 || ready[1].revents != 0) {
                return;
            }
            const UniqueFd fd(::accept4(listenFd_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!fd) {
                continue;
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (stopping_) {
                    return;
                }
                connectionFd_ = fd.Get();
            }
            ++connections_;
            const vi_connector::SslPtr ssl(SSL_new(context_.get()));
            SSL_set_fd(ssl.get(), fd.Get());
            if (SSL_accept(ssl.get()) == 1) {
                ++handshakes_;
                char buffer[4096];
                for (int count; (count = SSL_read(ssl.get(), buffer, sizeof(buffer))) > 0;) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    received_.append(buffer, static_cast<std::size_t>(count));
                }
            }
            std::lock_guard<std::mutex> lock(mutex_);
            connectionFd_ = -1;
        }
    }

    vi_connector::SslCtxPtr context_;
    UniqueFd listenFd_;
    UniqueFd wakeRead_;
    UniqueFd wakeWrite_;
    std::uint16_t port_ = 0;
    std::atomic<int> connections_{0};
    std::atomic<int> handshakes_{0};
    mutable std::mutex mutex_;
    bool stopping_ = false;
    int connectionFd_ = -1;
    std::string received_;
    std::thread thread_;
};

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
        SingleSuiteTlsServer backend(pki.File(row.certificate + ".pem"),
                                     pki.File(row.certificate + ".key"), row.suite);
        SingleSuiteTlsServer broker(pki.File(row.certificate + ".pem"),
                                    pki.File(row.certificate + ".key"), row.suite);
        csc_logging::LogCapture log;
        const auto sut = StartedConnector(pki, backend.Port());
        ASSERT_EQ(sut->GetSessionStatus(), SessionStatus::kOk) << log.Dump();

        const auto socket = sut->SocketConnect(kId, "127.0.0.1", backend.Port());
        if (socket.fd >= 0) {
            EXPECT_EQ(::write(socket.fd, "GET", 3), 3);
            EXPECT_TRUE(WaitUntil([&] { return backend.Received() == "GET"; }, 5s));
            ::close(socket.fd);
        }
        const auto mqtt = StartedConnector(pki, broker.Port());
        ASSERT_EQ(mqtt->PubSubConnect(nullptr), pubsub_status::kInProgress);
        // A refused client tries again: its first attempt has ended by then.
        ASSERT_TRUE(WaitUntil(
            [&] { return broker.Connections() >= 2 || !broker.Received().empty(); }, 10s));
        mqtt->PubSubDisconnect();

        EXPECT_EQ(socket.status == 0, row.accepted);
        EXPECT_EQ(backend.Handshakes() == 1, row.accepted);
        EXPECT_EQ(log.Contains("TLS to 127.0.0.1:" + std::to_string(backend.Port()) +
                               " failed: handshake refused"),
                  !row.accepted)
            << log.Dump();
        // MQTT CONNECT is the first byte the broker would get.
        EXPECT_EQ(broker.Received().rfind('\x10', 0) == 0, row.accepted);
        if (!row.accepted) {
            EXPECT_EQ(backend.Received(), "");
            EXPECT_EQ(broker.Received(), "");
            EXPECT_EQ(broker.Handshakes(), 0);
        }
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
