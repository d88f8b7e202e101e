#ifndef VI_CONNECTOR_TLS_CONNECTOR_HPP
#define VI_CONNECTOR_TLS_CONNECTOR_HPP

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "connector_config.hpp"
#include "openssl_handles.hpp"
#include "tls_pump.hpp"
#include "unique_fd/unique_fd.hpp"
#include "vi_connector/vi_types.hpp"

namespace vi_connector {

/// Opens verified TLS connections to backends and hands the client a
/// descriptor that carries the plain bytes (the other end of a socketpair,
/// pumped over TLS). Nothing the client writes goes out before the server is
/// verified.
class TlsConnector {
public:
    static constexpr std::uint32_t kTlsFailed = 4;
    static constexpr std::size_t kMaxKeyFileBytes = 64 * 1024;

    /// Nothing and a one-line reason when the trust anchors, the client
    /// certificate or its key cannot be loaded.
    static std::unique_ptr<TlsConnector> Create(const BackendTlsSettings& settings,
                                                std::string& error);
    ~TlsConnector();
    TlsConnector(const TlsConnector&) = delete;
    TlsConnector& operator=(const TlsConnector&) = delete;

    /// TCP connect plus handshake within `timeoutMs`. Status 0 and the
    /// client's descriptor, or a non-zero status and -1 with one error line
    /// naming the host and the reason.
    SocketResult Connect(const std::string& host, std::uint16_t port, int timeoutMs);

private:
    explicit TlsConnector(SslCtxPtr context);
    static int OnNewSession(SSL* ssl, SSL_SESSION* session);

    // The steps of Connect after the TCP connection: each gives the reason it
    // failed, nothing when it succeeded.
    // A TLS session on `netFd`, resuming the last one with `peer` if there is one.
    std::optional<std::string> MakeSession(const std::string& host, const std::string& peer,
                                           int netFd, SslPtr& ssl);
    // The connection to the pump, the other end of its socketpair to `clientFd`.
    std::optional<std::string> HandOver(SslPtr& ssl, unique_fd::UniqueFd& netFd,
                                        const std::string& peer, unique_fd::UniqueFd& clientFd);
    // The next attempt to `peer` starts afresh.
    void ForgetSession(const std::string& peer);

    SslCtxPtr context_;
    std::mutex sessionsMutex_;
    std::map<std::string, SslSessionPtr> sessions_;  // host:port -> resumable session
    // Destroyed first: its connections may still store sessions.
    std::unique_ptr<TlsPump> pump_;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_TLS_CONNECTOR_HPP
