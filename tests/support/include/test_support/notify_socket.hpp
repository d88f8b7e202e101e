#ifndef TEST_SUPPORT_NOTIFY_SOCKET_HPP
#define TEST_SUPPORT_NOTIFY_SOCKET_HPP

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane::testing {

/// Stands in for systemd's notification socket while it lives (NOTIFY_SOCKET points at it,
/// also for children started meanwhile). Like systemd it reads all the time, so that a
/// sender never blocks on the kernel's short datagram queue.
class NotifySocket {
public:
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    /// Every datagram received so far, including those pending now, in order.
    std::vector<std::string> Messages();
    std::size_t Count(const std::string& message);
    /// Waits until at least `occurrences` datagrams equal to `message` have arrived.
    bool WaitFor(const std::string& message, std::chrono::milliseconds timeout,
                 std::size_t occurrences = 1);

private:
    void ReceivePending();

    TemporaryDirectory directory_;
    int fd_ = -1;
    std::unique_ptr<ScopedEnvironment> environment_;
    std::mutex mutex_;
    std::vector<std::string> messages_;
    std::atomic<bool> stopping_{false};
    std::thread reader_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_NOTIFY_SOCKET_HPP
