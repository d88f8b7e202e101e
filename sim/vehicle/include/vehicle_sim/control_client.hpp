#ifndef VEHICLE_SIM_CONTROL_CLIENT_HPP
#define VEHICLE_SIM_CONTROL_CLIENT_HPP

#include <chrono>
#include <string>

namespace vehicle_sim {

/// Talks to a running simulator through its control socket.
class ControlClient {
public:
    enum class Result { kAnswered, kNotRunning, kFailed };

    /// Sends `command` and reads the whole answer into `reply`. kNotRunning
    /// when nothing listens on `socketPath`; kFailed with a reason in `reply`
    /// when the exchange broke off or took longer than `timeout`.
    static Result Send(const std::string& socketPath, const std::string& command,
                       std::string& reply,
                       std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_CONTROL_CLIENT_HPP
