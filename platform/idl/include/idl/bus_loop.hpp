#ifndef IDL_BUS_LOOP_HPP
#define IDL_BUS_LOOP_HPP

#include <sdbus-c++/IConnection.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace idl {

/// One bus connection served by one thread of its own. Everything that touches
/// the connection runs on that thread as a task, so sd-bus is never used from
/// two threads at once. The thread connects on Start(), reconnects after the
/// bus went away or while it cannot be reached (waiting `firstRetry`, doubled
/// after every failed attempt up to `lastRetry`) and survives errors that
/// would end sdbus-c++'s own loop (enterEventLoopAsync() throws them on its
/// thread, which ends the process).
class BusLoop {
public:
    /// Gets the connection, or nullptr while the bus is unreachable.
    using Task = std::function<void(sdbus::IConnection*)>;

    struct Callbacks {
        /// On the loop thread after every (re)connection.
        std::function<void(sdbus::IConnection&)> connected;
        /// On the loop thread when the connection broke, before it is closed.
        std::function<void()> lost;
    };

    /// `name` prefixes the log lines ("ara::com", "ClampControlClient").
    BusLoop(std::string name, std::string address, Callbacks callbacks,
            std::chrono::milliseconds firstRetry = std::chrono::milliseconds(250),
            std::chrono::milliseconds lastRetry = std::chrono::seconds(5));
    /// Stops and joins the thread; the connection is closed on it.
    ~BusLoop();
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

    /// Starts the thread; later calls do nothing.
    void Start();
    /// Runs `task` on the loop thread and waits for it; rethrows what it threw.
    /// Runs it at once when called on the loop thread (from a task or a
    /// callback). Starts the loop; throws std::logic_error once stopped.
    void Execute(const Task& task);
    /// Queues `task` for the loop thread. Starts the loop.
    void Post(Task task);
    bool InLoopThread() const;
    /// True once started and until stopped.
    bool Running() const;
    /// Stops the thread after the task it is running; joins it unless called on it.
    void Stop();

private:
    struct State;
    static void Run(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
};

}  // namespace idl

#endif  // IDL_BUS_LOOP_HPP
