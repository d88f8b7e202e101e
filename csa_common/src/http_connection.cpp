#include "csa_common/http_connection.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "csc_logging/csc_logging.hpp"
#include "vi_connector/vi_connector.hpp"

namespace csa_common {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

constexpr std::uint8_t kOk = 0;
constexpr std::uint8_t kConnectFailed = 1;
constexpr std::uint8_t kBadUrl = 2;
constexpr std::uint8_t kReceiveFailed = 3;
constexpr std::uint16_t kContinue = 100;

char Lower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualsIgnoringCase(const std::string& text, const char* lowerCase) {
    std::size_t i = 0;
    for (; i < text.size() && lowerCase[i] != '\0'; ++i) {
        if (Lower(text[i]) != lowerCase[i]) {
            return false;
        }
    }
    return i == text.size() && lowerCase[i] == '\0';
}

// Whether a "Transfer-Encoding" field of the header names "chunked" (names and
// codings are case-insensitive).
bool SaysChunked(const std::string& header) {
    static constexpr std::string_view kName = "\r\ntransfer-encoding:";
    std::string lower(header.size(), '\0');
    std::transform(header.begin(), header.end(), lower.begin(), Lower);
    for (auto at = lower.find(kName); at != std::string::npos; at = lower.find(kName, at + 1)) {
        const auto valueEnd = lower.find("\r\n", at + kName.size());
        if (lower.substr(at + kName.size(), valueEnd - at - kName.size()).find("chunked") !=
            std::string::npos) {
            return true;
        }
    }
    return false;
}

// Leading digits as std::stoi reads them ("8080?x=1" is 8080), narrowed to
// 16 bits; false only when there is no number or it exceeds an int.
bool ParsePort(const std::string& text, std::uint16_t& port) {
    try {
        port = static_cast<std::uint16_t>(std::stoi(text));
        return true;
    } catch (const std::logic_error&) {
        return false;
    }
}

}  // namespace

std::string HttpConnection::HostHeader(const std::string& host) {
    return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

HttpConnection::HttpConnection(const std::string& defaultHost, std::uint16_t defaultPort,
                               const std::string& defaultOperationTypeId,
                               std::shared_ptr<vi_connector::VIConnector> viConnector)
    : connector(std::move(viConnector))
    , host(defaultHost)
    , port(defaultPort)
    , operationTypeId(defaultOperationTypeId) {}

HttpConnection::HttpConnection(std::shared_ptr<vi_connector::VIConnector> viConnector)
    : connector(std::move(viConnector)) {}

bool HttpConnection::Test() const {
    return Test(operationTypeId, std::string()) == kOk;
}

std::optional<ParsedUrl> HttpConnection::ResolveTarget(const std::string& url) const {
    ParsedUrl target;
    if (url.empty()) {
        target.host = host;
        target.port = port;
    } else if (UrlParser(url, target)) {
        return std::nullopt;
    }
    return target;
}

std::uint8_t HttpConnection::Test(const std::string& operationType, const std::string& url) const {
    const auto target = ResolveTarget(url);
    if (!target) {
        return kBadUrl;
    }
    const std::string& targetHost = target->host;
    const std::uint16_t targetPort = target->port;
    CSCLogging::Info(CSCLogEntry() << "HttpConnection: Connecting to " << targetHost << ":"
                                   << targetPort << "\n\n");
    const int fd = OpenConnection(operationType, targetHost, targetPort);
    if (fd < 0) {
        CSCLogging::Error("HttpConnection: Connection failed!");
        return kConnectFailed;
    }
    CSCLogging::Info("HttpConnection: Connection succeeded!");
    CloseConnection(fd);
    return kOk;
}

bool HttpConnection::Get(HttpProtocol* protocol) const {
    return Get(*protocol, operationTypeId, std::string()) == kOk;
}

std::uint8_t HttpConnection::Get(HttpProtocol& protocol, const std::string& operationType,
                                 const std::string& url) const {
    return Exchange(Method::kGet, protocol, operationType, url);
}

bool HttpConnection::Post(HttpProtocol* protocol) const {
    return Post(*protocol, operationTypeId, std::string()) == kOk;
}

std::uint8_t HttpConnection::Post(HttpProtocol& protocol, const std::string& operationType,
                                  const std::string& url) const {
    return Exchange(Method::kPost, protocol, operationType, url);
}

bool HttpConnection::Put(HttpProtocol* protocol) const {
    return Put(*protocol, operationTypeId, std::string()) == kOk;
}

std::uint8_t HttpConnection::Put(HttpProtocol& protocol, const std::string& operationType,
                                 const std::string& url) const {
    return Exchange(Method::kPut, protocol, operationType, url);
}

std::uint8_t HttpConnection::Exchange(Method method, HttpProtocol& protocol,
                                      const std::string& operationType,
                                      const std::string& url) const {
    auto target = ResolveTarget(url);
    if (!target) {
        return kBadUrl;
    }
    const std::string& targetHost = target->host;
    const std::uint16_t targetPort = target->port;
    if (!url.empty()) {
        protocol.SetOption(HttpOption::Uri, std::move(target->path));
        protocol.SetOption(HttpOption::Host, HostHeader(targetHost));
    }

    CSCLogging::Info(CSCLogEntry() << "HttpConnection: Connecting to " << targetHost << ":"
                                   << targetPort << "\n\n");
    const int fd = OpenConnection(operationType, targetHost, targetPort);
    if (fd < 0) {
        CSCLogging::Error("HttpConnection: Connection failed!");
        return kConnectFailed;
    }
    exchangeDeadline_ = Now() + kMaxExchangeDuration;
    boundReached_ = false;
    CSCLogging::Info(CSCLogEntry() << "HttpConnection: Connection established to " << targetHost
                                   << ":" << targetPort);

    const std::string* request = nullptr;
    switch (method) {
        case Method::kGet:
            request = &protocol.GET();
            break;
        case Method::kPost:
            request = &protocol.POST();
            break;
        case Method::kPut:
            request = &protocol.PUT();
            break;
    }
    const ssize_t sent = Send(fd, *request);
    if (sent < 0 || static_cast<std::size_t>(sent) != request->size()) {
        CSCLogging::Error(CSCLogEntry() << "HttpConnection: Sent " << sent << " of "
                                        << request->size() << " request bytes");
    }

    try {
        bool finalResponsePending = true;
        if (method == Method::kPut) {
            if (ReceiveAndParse(fd, protocol) != kOk) {
                return EndAfterReceiveFailure(fd);
            }
            if (protocol.ResponseStatusCode() == kContinue) {
                Send(fd, protocol.RequestPayload());
                CSCLogging::Debug(CSCLogEntry()
                                  << "HttpConnection: Sent payload "
                                  << protocol.RequestPayload().size() << " bytes\n\n");
            } else {
                finalResponsePending = false;
            }
        }
        // Interim "100 Continue" answers are skipped; the final one follows on the same socket.
        while (finalResponsePending) {
            if (ReceiveAndParse(fd, protocol) != kOk) {
                return EndAfterReceiveFailure(fd);
            }
            finalResponsePending = protocol.ResponseStatusCode() == kContinue;
        }
    } catch (...) {
        exchangeDeadline_ = std::chrono::steady_clock::time_point::max();
        CloseConnection(fd);
        throw;
    }
    exchangeDeadline_ = std::chrono::steady_clock::time_point::max();
    // Bodies are taken as they come, never de-chunked: say so, since the
    // chunk sizes are then read as part of the body.
    if (SaysChunked(protocol.ResponseHeader())) {
        CSCLogging::Warning(
            "HttpConnection: the response says 'Transfer-Encoding: chunked', which this client "
            "does not decode; its body is taken with the chunk sizes in it. The server, or a "
            "proxy in front of it, must send the body unchunked and close the connection");
    }

    CSCLogging::Debug(CSCLogEntry() << "HttpConnection: Received payload "
                                    << protocol.ResponsePayload().size() << " bytes\n\n");
    CloseConnection(fd);
    return kOk;
}

std::uint8_t HttpConnection::EndAfterReceiveFailure(int fd) const {
    // A poll failure leaves the socket open (established behaviour); a peer
    // stopped by a bound is still sending and must be cut off.
    if (boundReached_) {
        CloseConnection(fd);
    }
    exchangeDeadline_ = std::chrono::steady_clock::time_point::max();
    return kReceiveFailed;
}

std::uint8_t HttpConnection::ReceiveAndParse(int fd, HttpProtocol& protocol) const {
    std::string response;
    if (ReceiveResponse(fd, response) != kOk) {
        return kReceiveFailed;
    }
    protocol.ParseResponse(response);
    CSCLogging::Debug("HttpConnection: Received Response\n-----\n" + protocol.ResponseHeader() +
                      "\n-----\n\n");
    return kOk;
}

bool HttpConnection::UrlParser(const std::string& url, ParsedUrl& out) const {
    const auto separator = url.find("://");
    if (separator == std::string::npos) {
        CSCLogging::Error("URL parsing failed! URL prefix not found!");
        return true;
    }
    out.protocol = url.substr(0, separator);
    const bool isHttp = EqualsIgnoringCase(out.protocol, "http");
    const bool isHttps = EqualsIgnoringCase(out.protocol, "https");
    if (!isHttp && !isHttps) {
        CSCLogging::Error("URL parsing failed! Unsupported protocol: " + out.protocol);
        return true;
    }

    const auto hostStart = separator + 3;
    std::size_t hostEnd = 0;
    if (hostStart < url.size() && url[hostStart] == '[') {
        // An IPv6 literal keeps its colons; the brackets are not part of the address.
        // A "]" past the first "/" belongs to the path, so the literal is unclosed.
        const auto closing = url.find_first_of("]/", hostStart);
        if (closing == std::string::npos || url[closing] != ']') {
            CSCLogging::Error("URL parsing failed! Domain not found!");
            return true;
        }
        out.host = url.substr(hostStart + 1, closing - hostStart - 1);
        hostEnd = closing + 1;
        if (hostEnd < url.size() && url[hostEnd] != ':' && url[hostEnd] != '/') {
            CSCLogging::Error("URL parsing failed! Domain not found!");
            return true;
        }
    } else {
        hostEnd = url.find_first_of(":/", hostStart);
        out.host = url.substr(
            hostStart, hostEnd == std::string::npos ? std::string::npos : hostEnd - hostStart);
    }
    if (out.host.empty()) {
        CSCLogging::Error("URL parsing failed! Domain not found!");
        return true;
    }
    if (hostEnd >= url.size()) {
        hostEnd = std::string::npos;
    }

    std::size_t pathStart = hostEnd;
    if (hostEnd != std::string::npos && url[hostEnd] == ':') {
        const auto portStart = hostEnd + 1;
        pathStart = url.find('/', portStart);
        const std::string portText = url.substr(
            portStart, pathStart == std::string::npos ? std::string::npos : pathStart - portStart);
        if (portText.empty()) {
            CSCLogging::Error("URL parsing failed! Port number not found!");
            return true;
        }
        if (!ParsePort(portText, out.port)) {
            CSCLogging::Error("URL parsing failed! Not able to parse port number: " + portText);
            return true;
        }
    } else if (isHttp) {
        out.port = 80;
        CSCLogging::Info("Received URL missing port number. Default HTTP port used: 80");
    } else {
        out.port = 443;
        CSCLogging::Info("Received URL missing port number. Default HTTPS port used: 443");
    }

    out.path = pathStart == std::string::npos ? std::string() : url.substr(pathStart);
    return false;
}

ParsedUrl HttpConnection::UrlParser(std::string url) {
    const HttpConnection parser(nullptr);
    ParsedUrl parsed;
    if (parser.UrlParser(url, parsed)) {
        // Callers take an empty host for failure, whatever part was filled.
        return ParsedUrl{};
    }
    return parsed;
}

int HttpConnection::OpenConnection(const std::string& operationType, const std::string& hostName,
                                   std::uint16_t portNumber) const {
    if (!connector) {
        CSCLogging::Error("HttpConnection: Connection not established. No connector");
        return -1;
    }
    const auto result = connector->SocketConnect(operationType, hostName, portNumber);
    if (result.status != 0) {
        CSCLogging::Error(CSCLogEntry() << "HttpConnection: Connection not established. Status: "
                                        << result.status);
    }
    return result.fd;
}

ssize_t HttpConnection::Send(int fd, const std::string& data) const {
    // A peer that went away must fail the write, not raise SIGPIPE in the whole process.
    ssize_t written = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (written < 0 && errno == ENOTSOCK) {
        written = ::write(fd, data.data(), data.size());
    }
    return written;
}

int HttpConnection::Poll(int timeoutMs, int fd) const {
    pollfd entry{};
    entry.fd = fd;
    entry.events = POLLIN;
    return ::poll(&entry, 1, timeoutMs);
}

std::uint8_t HttpConnection::ReceiveResponse(int fd, std::string& response) const {
    using Clock = std::chrono::steady_clock;
    // Waits are cut to what is left of the exchange, so a trickling peer
    // cannot restart the gap timer forever.
    const auto boundedWait = [this](std::int32_t timeoutMs) {
        if (exchangeDeadline_ == Clock::time_point::max()) {
            return timeoutMs;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(exchangeDeadline_ - Now())
                .count();
        return static_cast<std::int32_t>(
            std::clamp<long long>(left, 0, static_cast<long long>(timeoutMs)));
    };
    const auto deadlinePassed = [this] {
        return exchangeDeadline_ != Clock::time_point::max() && Now() >= exchangeDeadline_;
    };
    const auto stopAtBound = [this, &response](const CSCLogEntry& what) {
        CSCLogging::Error(CSCLogEntry() << "HttpConnection: " << what.str() << " after "
                                        << response.size() << " bytes; exchange ended");
        boundReached_ = true;
        response.clear();
        response.shrink_to_fit();
        return kReceiveFailed;
    };

    response.clear();
    // A silent first poll is not an error: the gap check below then ends the response.
    if (Poll(boundedWait(firstPollTimeoutMs), fd) == -1) {
        CSCLogging::Error("HttpConnection: Receive Timeout!");
        return kReceiveFailed;
    }
    std::vector<char> buffer(receiveBufferSize);
    for (;;) {
        if (deadlinePassed()) {
            return stopAtBound(CSCLogEntry()
                               << "exchange exceeded " << kMaxExchangeDuration.count() << " s");
        }
        const int ready = Poll(boundedWait(nextPollTimeoutMs), fd);
        if (ready == 0) {
            if (deadlinePassed()) {
                continue;  // reported above
            }
            break;
        }
        if (ready == -1) {
            CSCLogging::Error("HttpConnection: Receive Timeout!!");
            return kReceiveFailed;
        }
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count <= 0) {
            CSCLogging::Info("HttpConnection: Reception ended");
            break;
        }
        CSCLogging::Info(CSCLogEntry() << "HttpConnection: Read " << count << " bytes from socket");
        if (response.size() + static_cast<std::size_t>(count) > kMaxResponseBytes) {
            return stopAtBound(CSCLogEntry()
                               << "response exceeds " << kMaxResponseBytes << " bytes");
        }
        response.append(buffer.data(), static_cast<std::size_t>(count));
    }
    CSCLogging::Info(CSCLogEntry() << "HttpConnection: Total received " << response.size()
                                   << " bytes from socket");
    return kOk;
}

void HttpConnection::CloseConnection(int fd) const {
    ::close(fd);
}

std::chrono::steady_clock::time_point HttpConnection::Now() const {
    return std::chrono::steady_clock::now();
}

}  // namespace csa_common
