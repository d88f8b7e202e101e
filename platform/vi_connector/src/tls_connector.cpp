#include "tls_connector.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "csc_logging/csc_logging.hpp"
#include "poll_deadline.hpp"
#include "sigpipe_block.hpp"
#include "tcp_connect.hpp"
#include "tls_common.hpp"
#include "tls_policy.hpp"

namespace vi_connector {
namespace {

using Clock = std::chrono::steady_clock;

// A server that asked for a client certificate we do not have gives its
// verdict (TLS 1.3: after our Finished) at once; an optional request costs this.
constexpr auto kClientCertificateVerdict = std::chrono::milliseconds(1000);

struct HandshakeState {
    std::string sessionKey;  // host:port
    bool certificateRequested = false;
};

void FreeState(void* /*parent*/, void* state, CRYPTO_EX_DATA* /*data*/, int /*index*/,
               long /*argl*/, void* /*argp*/) {
    delete static_cast<HandshakeState*>(state);
}

// The SSL owns its HandshakeState.
int StateIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, FreeState);
    return index;
}

HandshakeState* StateOf(SSL* ssl) {
    return static_cast<HandshakeState*>(SSL_get_ex_data(ssl, StateIndex()));
}

int OnCertificateRequest(SSL* ssl, X509** /*certificate*/, EVP_PKEY** /*key*/) {
    if (auto* state = StateOf(ssl)) {
        state->certificateRequested = true;
    }
    return 0;  // nothing to send
}

// 1 ready, 0 time out, -1 error.
int WaitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        pollfd entry{fd, events, 0};
        const int ready = ::poll(&entry, 1, RemainingMs(deadline));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        return ready > 0 ? 1 : ready;
    }
}

// Non-blocking, without Nagle's algorithm.
std::optional<std::string> PrepareSocket(int fd) {
    // Handshake messages and records are small and each waits for the peer's
    // answer: Nagle's algorithm would hold them for the delayed ACK.
    const int noDelay = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        return "cannot make the socket non-blocking";
    }
    return std::nullopt;
}

// The handshake by `deadline`; on TLS 1.3, also the server's verdict on a
// client certificate it asked for.
std::optional<std::string> Handshake(SSL* ssl, int fd, Clock::time_point deadline) {
    const auto noCertificate = [] {
        return "handshake refused: the server demands a client certificate and "
               "[backend_tls] has none (" +
               OpenSslError() + ")";
    };
    const HandshakeState& state = *StateOf(ssl);
    for (;;) {
        ERR_clear_error();
        const int done = SSL_connect(ssl);
        if (done == 1) {
            break;
        }
        const int error = SSL_get_error(ssl, done);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            const int ready =
                WaitFor(fd, error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline);
            if (ready == 0) {
                return "handshake timed out";
            }
            if (ready < 0) {
                return std::string("handshake: ") + std::strerror(errno);
            }
            continue;
        }
        const long verified = SSL_get_verify_result(ssl);
        if (verified != X509_V_OK) {
            return VerifyReason(verified) + " (" + X509_verify_cert_error_string(verified) + ")";
        }
        if (state.certificateRequested) {
            return noCertificate();
        }
        const std::string detail =
            error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0
                ? (errno != 0 ? std::strerror(errno) : "connection closed by the server")
                : OpenSslError();
        return "handshake refused (" + detail + ")";
    }

    // TLS 1.3 finishes our side before the server has judged a missing client
    // certificate: wait for its verdict rather than send a request into a refusal.
    if (state.certificateRequested && SSL_version(ssl) == TLS1_3_VERSION) {
        const auto verdictBy = std::min(deadline, Clock::now() + kClientCertificateVerdict);
        while (WaitFor(fd, POLLIN, verdictBy) > 0) {
            char byte;
            ERR_clear_error();
            const int peeked = SSL_peek(ssl, &byte, 1);
            const int error = SSL_get_error(ssl, peeked);
            if (peeked > 0 || error == SSL_ERROR_WANT_READ) {
                break;  // accepted: tickets or data
            }
            return noCertificate();
        }
    }
    return std::nullopt;
}

}  // namespace

std::unique_ptr<TlsConnector> TlsConnector::Create(const BackendTlsSettings& settings,
                                                   std::string& error) {
    SslCtxPtr owned(SSL_CTX_new(TLS_client_method()));
    if (!owned) {
        error = "cannot create a TLS context: " + OpenSslError();
        return nullptr;
    }
    SSL_CTX* context = owned.get();
    std::unique_ptr<TlsConnector> connector(new TlsConnector(std::move(owned)));
    if (!ApplyTlsPolicy(context) || (settings.minVersion == 13 &&
                                     SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) != 1)) {
        error = "cannot apply the TLS policy: " + OpenSslError();
        return nullptr;
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_client_cert_cb(context, OnCertificateRequest);
    SSL_CTX_set_default_passwd_cb(context, NoPassphrase);
    SSL_CTX_set_ex_data(context, 0, connector.get());
    SSL_CTX_set_session_cache_mode(context,
                                   SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
    SSL_CTX_sess_set_new_cb(context, &TlsConnector::OnNewSession);

    const bool trusted =
        settings.caFile.empty()
            ? SSL_CTX_set_default_verify_paths(context) == 1
            : SSL_CTX_load_verify_locations(context, settings.caFile.c_str(), nullptr) == 1;
    if (!trusted) {
        error = "[backend_tls] cannot load the trust anchors" +
                (settings.caFile.empty() ? std::string() : " from '" + settings.caFile + "'") +
                ": " + OpenSslError();
        return nullptr;
    }
    if (settings.certFile.empty()) {
        return connector;
    }
    if (SSL_CTX_use_certificate_chain_file(context, settings.certFile.c_str()) != 1) {
        error = "[backend_tls] cannot load the client certificate '" + settings.certFile +
                "': " + OpenSslError();
        return nullptr;
    }
    if (!UseClientKey(context, settings.keyFile, "key_file", error)) {
        error = "[backend_tls] " + error;
        return nullptr;
    }
    return connector;
}

TlsConnector::TlsConnector(SslCtxPtr context)
    : context_(std::move(context)), pump_(std::make_unique<TlsPump>()) {}

TlsConnector::~TlsConnector() = default;

int TlsConnector::OnNewSession(SSL* ssl, SSL_SESSION* session) {
    auto* self = static_cast<TlsConnector*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), 0));
    auto* state = StateOf(ssl);
    if (self == nullptr || state == nullptr || !SSL_SESSION_is_resumable(session)) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(self->sessionsMutex_);
    self->sessions_[state->sessionKey].reset(session);
    return 1;  // we keep the reference
}

SocketResult TlsConnector::Connect(const std::string& host, std::uint16_t port, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const std::string peer = host + ":" + std::to_string(port);

    const SigpipeBlock noSigpipe;
    const SocketResult tcp = TcpConnect(host, port, timeoutMs);
    if (tcp.status != 0) {
        return tcp;
    }
    unique_fd::UniqueFd netFd(tcp.fd);
    const auto fail = [&](const std::string& reason) {
        netFd.Reset();
        csc_logging::CSCLogging::Error("VIConnector: TLS to " + peer + " failed: " + reason);
        return SocketResult{kTlsFailed, -1};
    };
    if (auto reason = PrepareSocket(netFd.Get())) {
        return fail(*reason);
    }
    SslPtr ssl;
    if (auto reason = MakeSession(host, peer, netFd.Get(), ssl)) {
        return fail(*reason);
    }
    auto reason = Handshake(ssl.get(), netFd.Get(), deadline);
    if (!reason) {
        csc_logging::CSCLogging::Debug(
            "VIConnector: TLS to " + peer + ": " + SSL_get_version(ssl.get()) +
            (SSL_session_reused(ssl.get()) == 1 ? ", session resumed" : ""));
        unique_fd::UniqueFd clientFd;
        reason = HandOver(ssl, netFd, peer, clientFd);
        if (!reason) {
            return {0, clientFd.Release()};
        }
    }
    ForgetSession(peer);
    return fail(*reason);
}

std::optional<std::string> TlsConnector::MakeSession(const std::string& host,
                                                     const std::string& peer, int netFd,
                                                     SslPtr& ssl) {
    // The SSL owns the state: TLS 1.3 tickets arrive after the handshake, in the pump.
    auto state = std::make_unique<HandshakeState>();
    state->sessionKey = peer;
    ssl.reset(SSL_new(context_.get()));
    if (!ssl || SSL_set_ex_data(ssl.get(), StateIndex(), state.get()) != 1) {
        return "cannot create a TLS session: " + OpenSslError();
    }
    state.release();
    SSL_set_fd(ssl.get(), netFd);
    if (!ExpectPeerName(ssl.get(), host)) {
        return "cannot expect the name '" + host + "': " + OpenSslError();
    }
    std::lock_guard<std::mutex> lock(sessionsMutex_);
    const auto found = sessions_.find(peer);
    if (found != sessions_.end()) {
        SSL_set_session(ssl.get(), found->second.get());
    }
    return std::nullopt;
}

std::optional<std::string> TlsConnector::HandOver(SslPtr& ssl, unique_fd::UniqueFd& netFd,
                                                  const std::string& peer,
                                                  unique_fd::UniqueFd& clientFd) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        return std::string("no socketpair: ") + std::strerror(errno);
    }
    clientFd.Reset(pair[0]);
    unique_fd::UniqueFd pumpFd(pair[1]);
    const int flags = ::fcntl(pumpFd.Get(), F_GETFL);
    if (flags < 0 || ::fcntl(pumpFd.Get(), F_SETFL, flags | O_NONBLOCK) != 0 ||
        !pump_->Add(ssl, netFd, pumpFd, peer)) {
        clientFd.Reset();
        return "the TLS pump does not run";
    }
    return std::nullopt;
}

void TlsConnector::ForgetSession(const std::string& peer) {
    std::lock_guard<std::mutex> lock(sessionsMutex_);
    sessions_.erase(peer);
}

}  // namespace vi_connector
