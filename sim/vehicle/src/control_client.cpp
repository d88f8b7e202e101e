#include "vehicle_sim/control_client.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "unique_fd/unique_fd.hpp"
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
    const unique_fd::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        reply = std::string("cannot create a socket: ") + std::strerror(errno);
        return Result::kFailed;
    }
    if (::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        if (error == ENOENT || error == ECONNREFUSED) {
            return Result::kNotRunning;
        }
        reply = "cannot connect to " + socketPath + ": " + std::strerror(error);
        return Result::kFailed;
    }
    const std::string line = command + "\n";
    if (::send(fd.Get(), line.data(), line.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(line.size())) {
        reply = std::string("cannot send the command: ") + std::strerror(errno);
        return Result::kFailed;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char buffer[4096];
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd descriptor{fd.Get(), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
            reply =
                "no answer from the simulator within " + std::to_string(timeout.count()) + " ms";
            return Result::kFailed;
        }
        const ssize_t n = ::read(fd.Get(), buffer, sizeof(buffer));
        if (n <= 0) {
            break;
        }
        reply.append(buffer, static_cast<std::size_t>(n));
    }
    return Result::kAnswered;
}

}  // namespace vehicle_sim
