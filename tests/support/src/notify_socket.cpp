#include "test_support/notify_socket.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace kelvane::testing {

NotifySocket::NotifySocket() : path_(directory_.File("notify")) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) {
        throw std::runtime_error(std::string("NotifySocket: socket: ") + std::strerror(errno));
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof(address.sun_path)) {
        ::close(fd_);
        throw std::runtime_error("NotifySocket: path too long: " + path_);
    }
    std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        ::close(fd_);
        throw std::runtime_error("NotifySocket: bind " + path_ + ": " + std::strerror(error));
    }
    if (const char* previous = std::getenv("NOTIFY_SOCKET")) {
        previous_ = previous;
    }
    ::setenv("NOTIFY_SOCKET", path_.c_str(), 1);
}

NotifySocket::~NotifySocket() {
    if (previous_) {
        ::setenv("NOTIFY_SOCKET", previous_->c_str(), 1);
    } else {
        ::unsetenv("NOTIFY_SOCKET");
    }
    ::close(fd_);
}

void NotifySocket::Receive(std::chrono::milliseconds timeout) {
    pollfd readable{fd_, POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(timeout.count())) <= 0) {
        return;
    }
    char buffer[4096];
    ssize_t got;
    while ((got = ::recv(fd_, buffer, sizeof buffer, 0)) >= 0) {
        messages_.emplace_back(buffer, static_cast<std::size_t>(got));
    }
}

std::vector<std::string> NotifySocket::Messages() {
    Receive(std::chrono::milliseconds(0));
    return messages_;
}

std::size_t NotifySocket::Count(const std::string& message) {
    Receive(std::chrono::milliseconds(0));
    return static_cast<std::size_t>(std::count(messages_.begin(), messages_.end(), message));
}

bool NotifySocket::WaitFor(const std::string& message, std::chrono::milliseconds timeout,
                           std::size_t occurrences) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (Count(message) >= occurrences) {
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        Receive(left);
    }
}

}  // namespace kelvane::testing
