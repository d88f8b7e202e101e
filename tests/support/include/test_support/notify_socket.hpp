#ifndef TEST_SUPPORT_NOTIFY_SOCKET_HPP
#define TEST_SUPPORT_NOTIFY_SOCKET_HPP

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane::testing {

/// Stands in for systemd's notification socket: a unix datagram socket in a
/// temporary directory. While it lives, NOTIFY_SOCKET points at it (the previous
/// value comes back on destruction), so sd_notify() in this process, or in a
/// child started meanwhile, sends here. Use it from one thread.
class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    const std::string& Path() const { return path_; }

    /// Every datagram received so far, including those pending now, in order.
    std::vector<std::string> Messages();
    std::size_t Count(const std::string& message);
    /// Waits until at least `occurrences` datagrams equal to `message` have arrived.
    bool WaitFor(const std::string& message, std::chrono::milliseconds timeout,
                 std::size_t occurrences = 1);

private:
    TemporaryDirectory directory_;
    std::string path_;
    int fd_ = -1;
    std::unique_ptr<ScopedEnvironment> environment_;
    std::vector<std::string> messages_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_NOTIFY_SOCKET_HPP
