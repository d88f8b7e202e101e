#ifndef CSA_COMMON_HTTP_CONNECTION_HPP
#define CSA_COMMON_HTTP_CONNECTION_HPP

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "csa_common/http_connection_if.hpp"
#include "csa_common/http_protocol.hpp"

namespace vi_connector {
class VIConnector;
}

namespace csa_common {

/// The parts of an invocation URL. `path` is the request target with its
/// leading "/" and the query; it is empty when the URL has none.
struct ParsedUrl {
    std::string protocol;
    std::string host;
    std::uint16_t port = 0;
    std::string path;
};

/// Plain-text HTTP/1.1 over a socket that the connector opens on behalf of a
/// transaction type: open, send, receive, close, one exchange per call and no
/// connection reuse. "https" only changes the default port; there is no TLS
/// here. A response ends when the peer closes or after a 10 s gap in the data
/// (the first byte may take 20 s more); Content-Length is not used to stop.
/// A peer cannot hold an exchange or its memory without bound: a response
/// past kMaxResponseBytes or an exchange past kMaxExchangeDuration fails and
/// the socket is closed.
class HttpConnection : public HttpConnectionIf {
public:
    static constexpr std::size_t kMaxResponseBytes = 1024 * 1024;
    static constexpr std::chrono::seconds kMaxExchangeDuration{60};

    HttpConnection(const std::string& defaultHost, std::uint16_t defaultPort,
                   const std::string& defaultOperationTypeId,
                   std::shared_ptr<vi_connector::VIConnector> viConnector);
    explicit HttpConnection(std::shared_ptr<vi_connector::VIConnector> viConnector);
    ~HttpConnection() override = default;

    bool Test() const override;
    std::uint8_t Test(const std::string& operationType, const std::string& url) const override;
    bool Get(HttpProtocol* protocol) const override;
    std::uint8_t Get(HttpProtocol& protocol, const std::string& operationType,
                     const std::string& url) const override;
    bool Post(HttpProtocol* protocol) const override;
    std::uint8_t Post(HttpProtocol& protocol, const std::string& operationType,
                      const std::string& url) const override;
    bool Put(HttpProtocol* protocol) const override;
    std::uint8_t Put(HttpProtocol& protocol, const std::string& operationType,
                     const std::string& url) const override;

    /// False on success, true on failure (the reason is logged).
    bool UrlParser(const std::string& url, ParsedUrl& out) const;
    /// The record as far as it could be filled; an empty host means failure.
    static ParsedUrl UrlParser(std::string url);
    /// The Host header's value for a parsed host: an IPv6 literal in brackets.
    static std::string HostHeader(const std::string& host);

    /// The descriptor from the connector (-1 when it could not connect).
    virtual int OpenConnection(const std::string& operationType, const std::string& hostName,
                               std::uint16_t portNumber) const;
    /// One write of the whole of `data`; returns what the write returned.
    virtual ssize_t Send(int fd, const std::string& data) const;
    /// Waits for input on `fd`; returns what poll returned.
    virtual int Poll(int timeoutMs, int fd) const;
    /// Reads until the peer closes or a gap in the data: 0, or 3 on a poll error
    /// or when a bound was reached.
    virtual std::uint8_t ReceiveResponse(int fd, std::string& response) const;
    virtual void CloseConnection(int fd) const;
    /// The clock that bounds an exchange (steady); tests move their own.
    virtual std::chrono::steady_clock::time_point Now() const;

private:
    enum class Method { kGet, kPost, kPut };

    /// Where `url` points, or without one the connection's own host and port;
    /// nothing when the URL does not parse (logged).
    std::optional<ParsedUrl> ResolveTarget(const std::string& url) const;
    std::uint8_t Exchange(Method method, HttpProtocol& protocol, const std::string& operationType,
                          const std::string& url) const;
    std::uint8_t ReceiveAndParse(int fd, HttpProtocol& protocol) const;
    std::uint8_t EndAfterReceiveFailure(int fd) const;

    std::shared_ptr<vi_connector::VIConnector> connector;
    std::string host;
    std::uint16_t port = 0;
    std::string operationTypeId;
    std::size_t receiveBufferSize = 1500;
    std::int32_t firstPollTimeoutMs = 20000;
    std::int32_t nextPollTimeoutMs = 10000;
    // Per exchange, set at connect; the object serves one thread at a time.
    mutable std::chrono::steady_clock::time_point exchangeDeadline_ =
        std::chrono::steady_clock::time_point::max();
    mutable bool boundReached_ = false;
};

}  // namespace csa_common

#endif  // CSA_COMMON_HTTP_CONNECTION_HPP
