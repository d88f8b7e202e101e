#ifndef BACKEND_SIM_TEST_RAW_HTTP_CLIENT_HPP
#define BACKEND_SIM_TEST_RAW_HTTP_CLIENT_HPP

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>

namespace backend_sim::testing {

/// A bare TCP client that sends bytes as they are and reports exactly what
/// came back and whether the server closed, as the vehicle client sees it.
class RawHttpClient {
public:
    struct Reply {
        std::string bytes;
        /// The server closed the connection (as opposed to the wait running out).
        bool closed = false;
    };

    explicit RawHttpClient(std::uint16_t port, bool ipv6 = false) {
        fd_ = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int rc = -1;
        if (ipv6) {
            sockaddr_in6 address{};
            address.sin6_family = AF_INET6;
            address.sin6_port = htons(port);
            address.sin6_addr = in6addr_loopback;
            rc = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        } else {
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(port);
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            rc = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        }
        connected_ = rc == 0;
    }
    ~RawHttpClient() { Close(); }
    RawHttpClient(const RawHttpClient&) = delete;
    RawHttpClient& operator=(const RawHttpClient&) = delete;

    bool Connected() const { return connected_; }

    bool Send(const std::string& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }

    /// Reads until the server closes or nothing arrives for `quiet`, at most `limit` in all.
    Reply Receive(std::chrono::milliseconds quiet,
                  std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        Reply reply;
        const auto deadline = std::chrono::steady_clock::now() + limit;
        char buffer[4096];
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd descriptor{fd_, POLLIN, 0};
            if (::poll(&descriptor, 1, static_cast<int>(quiet.count())) <= 0) {
                return reply;
            }
            const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
            if (n <= 0) {
                reply.closed = true;
                return reply;
            }
            reply.bytes.append(buffer, static_cast<std::size_t>(n));
        }
        return reply;
    }

    /// Reads until the bytes received hold `marker`, the server closes or `limit` runs out.
    Reply ReceiveUntil(const std::string& marker, std::chrono::milliseconds limit) {
        Reply reply;
        const auto deadline = std::chrono::steady_clock::now() + limit;
        char buffer[4096];
        while (reply.bytes.find(marker) == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd descriptor{fd_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
                return reply;
            }
            const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
            if (n <= 0) {
                reply.closed = true;
                return reply;
            }
            reply.bytes.append(buffer, static_cast<std::size_t>(n));
        }
        return reply;
    }

    /// Reads until the server closes (at most `limit`).
    Reply ReceiveUntilClosed(std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
        return Receive(limit, limit);
    }

    void Close() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

private:
    int fd_ = -1;
    bool connected_ = false;
};

/// The header of a reply, up to the blank line.
inline std::string HeaderOf(const std::string& reply) {
    return reply.substr(0, reply.find("\r\n\r\n"));
}

/// The body of a reply, after the first blank line.
inline std::string BodyOf(const std::string& reply) {
    const auto end = reply.find("\r\n\r\n");
    return end == std::string::npos ? "" : reply.substr(end + 4);
}

}  // namespace backend_sim::testing

#endif  // BACKEND_SIM_TEST_RAW_HTTP_CLIENT_HPP
