#include "test_support/loopback.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace kelvane::testing {
namespace {

union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

// A socket for 127.0.0.1 or ::1, and that address with `port`.
int LoopbackSocket(Address& address, std::uint16_t port, bool ipv6) {
    address = {};
    if (ipv6) {
        address.v6 = {AF_INET6, htons(port), 0, in6addr_loopback, 0};
    } else {
        address.v4 = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    }
    return ::socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

}  // namespace

int ListenOnLoopback(std::uint16_t& port, bool ipv6) {
    Address address;
    const int fd = LoopbackSocket(address, 0, ipv6);
    socklen_t length = sizeof(address);
    if (fd < 0 || ::bind(fd, &address.any, length) != 0 || ::listen(fd, 16) != 0 ||
        ::getsockname(fd, &address.any, &length) != 0) {
        ::close(fd);
        throw std::runtime_error("cannot listen on loopback");
    }
    port = ntohs(address.v4.sin_port);  // where sin6_port is too
    return fd;
}

int ConnectOnLoopback(std::uint16_t port, bool ipv6) {
    Address address;
    const int fd = LoopbackSocket(address, port, ipv6);
    if (::connect(fd, &address.any, sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::uint16_t FreeTcpPort() {
    std::uint16_t port = 0;
    ::close(ListenOnLoopback(port));
    return port;
}

bool AcceptsConnections(std::uint16_t port) {
    const int fd = ConnectOnLoopback(port);
    ::close(fd);
    return fd >= 0;
}

}  // namespace kelvane::testing
