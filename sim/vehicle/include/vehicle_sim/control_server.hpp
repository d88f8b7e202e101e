#ifndef VEHICLE_SIM_CONTROL_SERVER_HPP
#define VEHICLE_SIM_CONTROL_SERVER_HPP

#include <functional>
#include <string>
#include <thread>

#include "unique_fd/unique_fd.hpp"

namespace vehicle_sim {

/// The running simulator's control socket: a unix stream socket (mode 0600)
/// taking one command line per connection and answering with the handler's
/// text before closing. Commands are handled one at a time on its thread.
class ControlServer {
public:
    using Handler = std::function<std::string(const std::string& command)>;

    ControlServer(std::string socketPath, Handler handler);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    /// Binds the socket (replacing a stale one nobody answers on) and starts
    /// serving. False with a reason, e.g. when another instance answers there.
    bool Start(std::string& error);
    /// Stops serving and removes the socket file.
    void Stop();

private:
    void Serve();
    void ServeOne(int fd);

    std::string socketPath_;
    Handler handler_;
    unique_fd::UniqueFd listenFd_;
    unique_fd::UniqueFd wakeRead_;
    unique_fd::UniqueFd wakeWrite_;
    std::thread thread_;
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_CONTROL_SERVER_HPP
