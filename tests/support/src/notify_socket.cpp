#include "test_support/notify_socket.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "test_support/child_process.hpp"

namespace kelvane::testing {

NotifySocket::NotifySocket() {
    const std::string path = directory_.File("notify");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (path.size() >= sizeof(address.sun_path) || fd_ < 0 ||
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("NotifySocket: cannot bind " + path + ": " + std::strerror(errno));
    }
    environment_ = std::make_unique<ScopedEnvironment>("NOTIFY_SOCKET", path);
    reader_ = std::thread([this] {
        pollfd entry{fd_, POLLIN, 0};
        while (!stopping_.load()) {
            if (::poll(&entry, 1, 50) > 0) {
                ReceivePending();
            }
        }
    });
}

NotifySocket::~NotifySocket() {
    stopping_.store(true);
    reader_.join();
    ::close(fd_);
}

void NotifySocket::ReceivePending() {
    std::lock_guard<std::mutex> lock(mutex_);
    char buffer[4096];
    for (ssize_t got; (got = ::recv(fd_, buffer, sizeof buffer, 0)) >= 0;) {
        messages_.emplace_back(buffer, static_cast<std::size_t>(got));
    }
}

std::vector<std::string> NotifySocket::Messages() {
    // What was sent before this call is here, even if the reader has not seen it yet.
    ReceivePending();
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
}

std::size_t NotifySocket::Count(const std::string& message) {
    const auto messages = Messages();
    return static_cast<std::size_t>(std::count(messages.begin(), messages.end(), message));
}

bool NotifySocket::WaitFor(const std::string& message, std::chrono::milliseconds timeout,
                           std::size_t occurrences) {
    return WaitUntil([&] { return Count(message) >= occurrences; }, timeout,
                     std::chrono::milliseconds(2));
}

}  // namespace kelvane::testing
