#include "signal_handler/signal_handler.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>

#include "csc_logging/csc_logging.hpp"

namespace signal_handler {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

// The pipe's write end, for the handler; -1 while no SignalHandler is installed.
std::atomic<int> g_writeFd{-1};
// Handlers running right now: the pipe is closed only once none can still use it.
std::atomic<int> g_inFlight{0};
static_assert(std::atomic<int>::is_always_lock_free, "used from a signal handler");

extern "C" void OnSignal(int signal) {
    const int savedErrno = errno;
    g_inFlight.fetch_add(1);
    const int fd = g_writeFd.load();
    if (fd >= 0) {
        const auto byte = static_cast<unsigned char>(signal);
        // A full pipe already holds a wake-up for the thread; the byte may go.
        [[maybe_unused]] const ssize_t written = write(fd, &byte, 1);
    }
    g_inFlight.fetch_sub(1);
    errno = savedErrno;
}

sigset_t SetOf(const std::vector<int>& signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    return set;
}

}  // namespace

SignalHandler::SignalHandler(Callback callback, std::vector<int> signals)
    : callback_(std::move(callback)), signals_(std::move(signals)) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        CSCLogging::Error(CSCLogEntry()
                          << "SignalHandler: cannot create pipe: " << std::strerror(errno));
        return;
    }
    readFd_ = fds[0];
    writeFd_ = fds[1];
    // The handler must never block, whatever the thread is doing.
    fcntl(writeFd_, F_SETFL, fcntl(writeFd_, F_GETFL) | O_NONBLOCK);

    int expected = -1;
    if (!g_writeFd.compare_exchange_strong(expected, writeFd_)) {
        CSCLogging::Error("SignalHandler: another handler is already installed");
        close(readFd_);
        close(writeFd_);
        readFd_ = writeFd_ = -1;
        return;
    }
    installed_ = true;

    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    // Other threads' system calls carry on instead of failing with EINTR.
    action.sa_flags = SA_RESTART;
    previous_.resize(signals_.size());
    for (std::size_t i = 0; i < signals_.size(); ++i) {
        if (sigaction(signals_[i], &action, &previous_[i]) != 0) {
            CSCLogging::Error(CSCLogEntry() << "SignalHandler: cannot handle signal " << signals_[i]
                                            << ": " << std::strerror(errno));
            signals_.resize(i);
            previous_.resize(i);
            Uninstall();
            return;
        }
    }
    // Started only now: when it takes the signals, they must find our action.
    thread_ = std::thread(&SignalHandler::Run, this);
}

void SignalHandler::BlockInCallingThread(const std::vector<int>& signals) {
    const sigset_t set = SetOf(signals);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalHandler::~SignalHandler() {
    if (installed_) {
        Uninstall();
    }
}

void SignalHandler::Uninstall() {
    // Previous actions first, so that no signal can be lost in a closed pipe.
    for (std::size_t i = 0; i < signals_.size(); ++i) {
        sigaction(signals_[i], &previous_[i], nullptr);
    }
    g_writeFd.store(-1);
    while (g_inFlight.load() != 0) {
        sched_yield();
    }
    // End of file tells the thread to stop once it has read what is pending.
    close(writeFd_);
    if (thread_.joinable()) {
        thread_.join();
    }
    close(readFd_);
    readFd_ = writeFd_ = -1;
    installed_ = false;
}

void SignalHandler::Run() {
    // This thread takes the signals only while it waits in ppoll(), which they
    // always break off. So a handler that a runtime defers to the end of the
    // call (ThreadSanitizer does) has run before the next wait, and other
    // threads that block the signals leave them to this one.
    const sigset_t ours = SetOf(signals_);
    sigset_t whileWaiting;
    pthread_sigmask(SIG_BLOCK, &ours, &whileWaiting);
    for (const int signal : signals_) {
        sigdelset(&whileWaiting, signal);
    }
    for (;;) {
        pollfd readable{readFd_, POLLIN, 0};
        if (ppoll(&readable, 1, nullptr, &whileWaiting) < 0 && errno == EINTR) {
            continue;
        }
        unsigned char byte = 0;
        if (read(readFd_, &byte, 1) <= 0) {
            return;
        }
        try {
            if (callback_) {
                callback_(byte);
            }
        } catch (const std::exception& e) {
            CSCLogging::Error(CSCLogEntry() << "SignalHandler: callback failed: " << e.what());
        }
    }
}

}  // namespace signal_handler
