#include "vehicle_sim/control_client.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "unix_socket.hpp"

namespace vehicle_sim {

ControlClient::Result ControlClient::Send(const std::string& socketPath, const std::string& command,
                                          std::string& reply, std::chrono::milliseconds timeout) {
    reply.clear();
    sockaddr_un address{};
    if (!UnixAddress(socketPath, address)) {
        reply = "control socket path " + socketPath + " is too long";
        return Result::kFailed;
    }
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        reply = std::string("cannot create a socket: ") + std::strerror(errno);
        return Result::kFailed;
    }
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        ::close(fd);
        if (error == ENOENT || error == ECONNREFUSED) {
            return Result::kNotRunning;
        }
        reply = "cannot connect to " + socketPath + ": " + std::strerror(error);
        return Result::kFailed;
    }
    const std::string line = command + "\n";
    if (::send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
        reply = std::string("cannot send the command: ") + std::strerror(errno);
        ::close(fd);
        return Result::kFailed;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char buffer[4096];
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd descriptor{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
            reply =
                "no answer from the simulator within " + std::to_string(timeout.count()) + " ms";
            ::close(fd);
            return Result::kFailed;
        }
        const ssize_t n = ::read(fd, buffer, sizeof(buffer));
        if (n <= 0) {
            break;
        }
        reply.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return Result::kAnswered;
}

}  // namespace vehicle_sim
