#ifndef VI_CONNECTOR_TLS_CONNECTOR_HPP
#define VI_CONNECTOR_TLS_CONNECTOR_HPP

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "connector_config.hpp"
#include "tls_pump.hpp"
#include "vi_connector/vi_types.hpp"

using SSL_CTX = struct ssl_ctx_st;
using SSL_SESSION = struct ssl_session_st;

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
    explicit TlsConnector(SSL_CTX* context);
    static int OnNewSession(SSL* ssl, SSL_SESSION* session);

    SSL_CTX* context_;
    std::unique_ptr<TlsPump> pump_;
    std::mutex sessionsMutex_;
    std::map<std::string, SSL_SESSION*> sessions_;  // host:port -> resumable session
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_TLS_CONNECTOR_HPP
