#include "test_support/loopback.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace kelvane::testing {
namespace {

// Binds (port 0: any free one) or connects a fresh socket on 127.0.0.1; the port it had.
int OnLoopback(std::uint16_t port, bool connect) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const bool done = connect
                          ? ::connect(fd, raw, length) == 0
                          : ::bind(fd, raw, length) == 0 && ::getsockname(fd, raw, &length) == 0;
    ::close(fd);
    return done ? ntohs(address.sin_port) : -1;
}

}  // namespace

std::uint16_t FreeTcpPort() {
    const int port = OnLoopback(0, false);
    if (port < 0) {
        throw std::runtime_error("FreeTcpPort: cannot bind on loopback");
    }
    return static_cast<std::uint16_t>(port);
}

bool AcceptsConnections(std::uint16_t port) {
    return OnLoopback(port, true) >= 0;
}

}  // namespace kelvane::testing
