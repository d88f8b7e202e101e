#ifndef SIGNAL_HANDLER_SIGNAL_HANDLER_HPP
#define SIGNAL_HANDLER_SIGNAL_HANDLER_HPP

#include <csignal>
#include <functional>
#include <thread>
#include <vector>

namespace signal_handler {

/// Turns asynchronous signals into ordinary calls on a thread of its own: the
/// signal handler only writes the signal number into a pipe (the self-pipe
/// trick), and the thread reading the pipe calls the callback, where any code
/// may run. One instance per process; the destructor restores the previous
/// signal actions and joins the thread.
class SignalHandler {
public:
    using Callback = std::function<void(int signal)>;

    explicit SignalHandler(Callback callback, std::vector<int> signals = {SIGTERM, SIGINT});
    ~SignalHandler();
    SignalHandler(const SignalHandler&) = delete;
    SignalHandler& operator=(const SignalHandler&) = delete;

    /// Blocks the signals in the calling thread and so in every thread it starts
    /// later. Called first in main, it makes the handler's thread the only one
    /// the signals reach: elsewhere they would break blocking calls that
    /// SA_RESTART does not resume, such as a D-Bus call waiting in ppoll(),
    /// with EINTR.
    static void BlockInCallingThread(const std::vector<int>& signals = {SIGTERM, SIGINT});

    /// False when the handler could not be set up (logged); then no signal is caught.
    bool Installed() const { return installed_; }

private:
    void Run();
    void Uninstall();

    Callback callback_;
    std::vector<int> signals_;
    std::vector<struct sigaction> previous_;
    int readFd_ = -1;
    int writeFd_ = -1;
    bool installed_ = false;
    std::thread thread_;
};

}  // namespace signal_handler

#endif  // SIGNAL_HANDLER_SIGNAL_HANDLER_HPP
