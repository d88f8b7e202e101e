#include "test_support/loopback.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace kelvane::testing {

std::uint16_t FreeTcpPort() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                       ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    ::close(fd);
    if (!bound) {
        throw std::runtime_error("FreeTcpPort: cannot bind on loopback");
    }
    return ntohs(address.sin_port);
}

bool AcceptsConnections(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const bool connected =
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return connected;
}

}  // namespace kelvane::testing
