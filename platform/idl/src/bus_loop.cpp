#include "idl/bus_loop.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "csc_logging/csc_logging.hpp"
#include "idl/bus_connection.hpp"
#include "unique_fd/unique_fd.hpp"

namespace idl {

namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

/// The socket path of a "unix:path=..." address, else empty.
std::string UnixSocketPath(const std::string& address) {
    const std::string first = address.substr(0, address.find(';'));
    if (first.rfind("unix:", 0) != 0) {
        return {};
    }
    std::size_t start = 5;
    while (start < first.size()) {
        const std::size_t end = std::min(first.find(',', start), first.size());
        const std::string pair = first.substr(start, end - start);
        if (pair.rfind("path=", 0) == 0) {
            return pair.substr(5);
        }
        start = end + 1;
    }
    return {};
}

/// False when the bus is plainly absent: its unix socket refuses connections.
/// sdbus-c++ 1.2 leaks the bus object of every failed connection attempt, so
/// a loop that retries for hours must not make attempts that cannot succeed.
bool MayBeReachable(const std::string& address) {
    std::string path;
    if (address == "system") {
        const char* system = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
        path = system != nullptr ? UnixSocketPath(system) : "/run/dbus/system_bus_socket";
    } else {
        path = UnixSocketPath(address);
    }
    if (path.empty()) {
        return true;
    }
    const unique_fd::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        return true;
    }
    sockaddr_un socketAddress{};
    socketAddress.sun_family = AF_UNIX;
    std::strncpy(socketAddress.sun_path, path.c_str(), sizeof(socketAddress.sun_path) - 1);
    return ::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&socketAddress),
                     sizeof(socketAddress)) == 0;
}

}  // namespace

struct BusLoop::State {
    std::string name;
    std::string address;
    Callbacks callbacks;
    std::chrono::milliseconds firstRetry;
    std::chrono::milliseconds lastRetry;
    unique_fd::UniqueFd wakeFd;

    std::mutex mutex;
    std::deque<Task> tasks;
    bool stopping = false;
    std::thread thread;
    std::thread::id threadId;
    // Loop thread only: the open connection or nullptr.
    sdbus::IConnection* current = nullptr;

    void Wake() const {
        const std::uint64_t one = 1;
        // A full counter already guarantees a wake-up, so a failed write needs no handling.
        [[maybe_unused]] const auto written = ::write(wakeFd.Get(), &one, sizeof(one));
    }
    void DrainWake() const {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto read = ::read(wakeFd.Get(), &count, sizeof(count));
    }
};

BusLoop::BusLoop(std::string name, std::string address, Callbacks callbacks,
                 std::chrono::milliseconds firstRetry, std::chrono::milliseconds lastRetry)
    : state_(std::make_shared<State>()) {
    state_->name = std::move(name);
    state_->address = std::move(address);
    state_->callbacks = std::move(callbacks);
    state_->firstRetry = std::max(firstRetry, std::chrono::milliseconds(1));
    state_->lastRetry = std::max(lastRetry, state_->firstRetry);
    state_->wakeFd.Reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!state_->wakeFd) {
        throw std::system_error(errno, std::generic_category(), "BusLoop: eventfd");
    }
}

// A detached thread (Stop() called on it) still holds the state, and the fd with it.
BusLoop::~BusLoop() {
    Stop();
}

void BusLoop::Start() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->thread.joinable() || state_->stopping) {
        return;
    }
    state_->thread = std::thread(&BusLoop::Run, state_);
    state_->threadId = state_->thread.get_id();
}

void BusLoop::Stop() {
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->stopping = true;
        thread = std::move(state_->thread);
    }
    state_->Wake();
    if (!thread.joinable()) {
        return;
    }
    if (thread.get_id() == std::this_thread::get_id()) {
        // The last owner let go from a task on the loop thread: the thread ends
        // when the task returns and takes the shared state with it.
        thread.detach();
        return;
    }
    thread.join();
}

bool BusLoop::InLoopThread() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->threadId == std::this_thread::get_id();
}

bool BusLoop::Running() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->thread.joinable() && !state_->stopping;
}

void BusLoop::Post(Task task) {
    Start();
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->tasks.push_back(std::move(task));
    }
    state_->Wake();
}

void BusLoop::Execute(const Task& task) {
    if (InLoopThread()) {
        task(state_->current);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->stopping) {
            throw std::logic_error("BusLoop::Execute: the loop has stopped");
        }
    }
    // The error crosses threads only under the mutex: the loop thread keeps no
    // reference to it, so it is freed where it is caught.
    struct Completion {
        std::mutex mutex;
        std::condition_variable finished;
        bool done = false;
        std::exception_ptr error;
    };
    auto completion = std::make_shared<Completion>();
    Post([task, completion](sdbus::IConnection* connection) {
        std::exception_ptr error;
        try {
            task(connection);
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard<std::mutex> lock(completion->mutex);
        completion->error = std::move(error);
        completion->done = true;
        completion->finished.notify_all();
    });
    std::exception_ptr error;
    {
        std::unique_lock<std::mutex> lock(completion->mutex);
        completion->finished.wait(lock, [&] { return completion->done; });
        error = std::move(completion->error);
    }
    if (error) {
        std::rethrow_exception(error);
    }
}

void BusLoop::Run(const std::shared_ptr<State>& state) {
    std::unique_ptr<sdbus::IConnection> connection;
    bool unreachableReported = false;
    bool everLost = false;
    auto retryDelay = state->firstRetry;

    auto runTasks = [&] {
        for (;;) {
            Task task;
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                if (state->tasks.empty()) {
                    return;
                }
                task = std::move(state->tasks.front());
                state->tasks.pop_front();
            }
            try {
                task(connection.get());
            } catch (const sdbus::Error& error) {
                // A task that found the connection broken: the next dispatch notices it too.
                CSCLogging::Warning(CSCLogEntry() << state->name << ": bus operation failed: "
                                                  << error.getName() << ": " << error.getMessage());
            } catch (const std::exception& error) {
                CSCLogging::Error(CSCLogEntry()
                                  << state->name << ": bus task failed: " << error.what());
            }
        }
    };
    auto stopping = [&] {
        std::lock_guard<std::mutex> lock(state->mutex);
        return state->stopping;
    };
    auto disconnect = [&] {
        try {
            if (state->callbacks.lost) {
                state->callbacks.lost();
            }
        } catch (const std::exception& error) {
            CSCLogging::Error(CSCLogEntry() << state->name
                                            << ": cleanup after bus loss failed: " << error.what());
        }
        state->current = nullptr;
        connection.reset();
    };

    while (!stopping()) {
        if (!connection) {
            try {
                if (!MayBeReachable(state->address)) {
                    throw sdbus::Error("org.freedesktop.DBus.Error.NoServer",
                                       "nothing accepts connections on its socket");
                }
                connection = idl::OpenBusConnection(state->address);
                state->current = connection.get();
                // After a loss this is news worth the default log level.
                CSCLogging::Log(
                    everLost ? csc_logging::LogLevel::kInfo : csc_logging::LogLevel::kDebug,
                    (CSCLogEntry() << state->name << ": connected to bus " << state->address
                                   << " as " << connection->getUniqueName())
                        .str());
                if (state->callbacks.connected) {
                    state->callbacks.connected(*connection);
                }
                unreachableReported = false;
                retryDelay = state->firstRetry;
            } catch (const std::exception& error) {
                if (connection) {
                    CSCLogging::Error(CSCLogEntry()
                                      << state->name << ": setting up bus " << state->address
                                      << " failed: " << error.what());
                    disconnect();
                } else if (!unreachableReported) {
                    CSCLogging::Error(CSCLogEntry() << state->name << ": bus " << state->address
                                                    << " unreachable, retrying: " << error.what());
                    unreachableReported = true;
                }
            }
        }

        runTasks();
        if (stopping()) {
            break;
        }

        if (!connection) {
            pollfd wake{state->wakeFd.Get(), POLLIN, 0};
            ::poll(&wake, 1, static_cast<int>(retryDelay.count()));
            state->DrainWake();
            retryDelay = std::min(retryDelay * 2, state->lastRetry);
            continue;
        }

        try {
            // Tasks may have made blocking calls that queued incoming messages;
            // those are dispatched here before the socket is polled again.
            while (connection->processPendingRequest()) {
                runTasks();
            }
            const auto pollData = connection->getEventLoopPollData();
            pollfd fds[2] = {{pollData.fd, pollData.events, 0}, {state->wakeFd.Get(), POLLIN, 0}};
            const int ready = ::poll(fds, 2, pollData.getPollTimeout());
            if (ready < 0 && errno != EINTR) {
                throw sdbus::Error("org.freedesktop.DBus.Error.Failed", "poll failed");
            }
            if ((fds[1].revents & POLLIN) != 0) {
                state->DrainWake();
            }
        } catch (const sdbus::Error& error) {
            CSCLogging::Error(CSCLogEntry() << state->name << ": lost bus " << state->address
                                            << ", reconnecting: " << error.getMessage());
            everLost = true;
            disconnect();
        } catch (const std::exception& error) {
            // A handler that threw: the connection itself is fine, and this thread must go on.
            CSCLogging::Error(CSCLogEntry()
                              << state->name << ": bus message handler failed: " << error.what());
        }
    }

    runTasks();
    if (connection) {
        disconnect();
    }
}

}  // namespace idl
