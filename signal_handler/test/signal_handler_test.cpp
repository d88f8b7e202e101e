#include "signal_handler/signal_handler.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/child_process.hpp"
#include "test_support/thread_state.hpp"

namespace signal_handler {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::WaitUntil;

// Records the signals delivered, negated if on the recorder's own thread: none may be.
class SignalRecorder {
public:
    SignalHandler::Callback Callback() {
        return [this](int signal) {
            std::lock_guard<std::mutex> lock(mutex_);
            signals_.push_back(std::this_thread::get_id() == maker_ ? -signal : signal);
        };
    }
    std::vector<int> Signals() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return signals_;
    }
    bool WaitForCount(std::size_t count) const {
        return WaitUntil([&] { return Signals().size() >= count; }, 5000ms, 1ms);
    }

private:
    const std::thread::id maker_ = std::this_thread::get_id();
    mutable std::mutex mutex_;
    std::vector<int> signals_;
};

std::atomic<int> g_previousHandlerCalls{0};
extern "C" void PreviousHandler(int) {
    g_previousHandlerCalls.fetch_add(1);
}

TEST(SignalHandlerTest, OneHandlerAtATimeCallsBackOnItsThreadPastAThrowAndRestoresTheAction) {
    struct sigaction previous {};
    previous.sa_handler = PreviousHandler;
    struct sigaction original {};
    ASSERT_EQ(sigaction(SIGUSR1, &previous, &original), 0);
    g_previousHandlerCalls = 0;
    csc_logging::LogCapture log;
    SignalRecorder first;
    SignalRecorder second;
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto filesBefore = openFiles();

    {
        SignalHandler sut(
            [record = first.Callback()](int signal) {
                record(signal);
                if (signal == SIGINT) {
                    throw std::runtime_error("boom");
                }
            },
            {SIGTERM, SIGINT, SIGUSR1});
        SignalHandler refused(second.Callback(), {SIGUSR1});
        std::size_t sent = 0;
        for (const int signal : {SIGTERM, SIGINT, SIGUSR1}) {
            kill(getpid(), signal);
            ASSERT_TRUE(first.WaitForCount(++sent)) << signal;
        }
        EXPECT_FALSE(refused.Installed());
    }
    EXPECT_EQ(openFiles(), filesBefore) << "both ends of the pipe are closed";
    kill(getpid(), SIGUSR1);
    SignalHandler next(first.Callback(), {SIGUSR1});
    kill(getpid(), SIGUSR1);
    ASSERT_TRUE(first.WaitForCount(4));

    EXPECT_TRUE(WaitUntil([] { return g_previousHandlerCalls.load() == 1; }, 5000ms, 1ms));
    EXPECT_EQ(first.Signals(), (std::vector<int>{SIGTERM, SIGINT, SIGUSR1, SIGUSR1}));
    EXPECT_TRUE(second.Signals().empty());
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kError, "SignalHandler: callback failed: boom"), 1U);
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kError, "SignalHandler: another handler"), 1U);
    EXPECT_TRUE(next.Installed());
    sigaction(SIGUSR1, &original, nullptr);
}

TEST(SignalHandlerTest, BlockedThreadsKeepWaitingWhileTheHandlersThreadTakesTheSignal) {
    sigset_t original;
    pthread_sigmask(SIG_SETMASK, nullptr, &original);
    SignalHandler::BlockInCallingThread({SIGUSR2});
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGUSR2), 1);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    std::atomic<pid_t> waiterTid{0};
    int pollResult = 0;
    int pollErrno = 0;
    // ppoll() is never resumed after a handler, SA_RESTART or not: the D-Bus call's case.
    std::thread waiter([&] {
        waiterTid = kelvane::testing::CurrentThreadId();
        pollfd readable{fds[0], POLLIN, 0};
        pollResult = ppoll(&readable, 1, nullptr, nullptr);
        pollErrno = errno;
    });
    // No ASSERT until the waiter is joined: it ends only once the pipe has a byte.
    const bool waiting =
        WaitUntil([&] { return waiterTid != 0 && kelvane::testing::ThreadIsBlocked(waiterTid); },
                  5000ms, 1ms);
    SignalRecorder recorder;
    SignalHandler sut(recorder.Callback(), {SIGUSR2});

    kill(getpid(), SIGUSR2);
    const bool delivered = recorder.WaitForCount(1);
    EXPECT_EQ(write(fds[1], "x", 1), 1);
    waiter.join();
    close(fds[0]);
    close(fds[1]);
    pthread_sigmask(SIG_SETMASK, &original, nullptr);

    EXPECT_TRUE(waiting);
    EXPECT_TRUE(delivered);
    EXPECT_EQ(pollResult, 1) << "waiter interrupted: " << std::strerror(pollErrno);
}

}  // namespace
}  // namespace signal_handler
