#ifndef VEHICLE_SIM_VEHICLE_RUNTIME_HPP
#define VEHICLE_SIM_VEHICLE_RUNTIME_HPP

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "unique_fd/unique_fd.hpp"
#include "vehicle_sim/control_server.hpp"
#include "vehicle_sim/fail_points.hpp"
#include "vehicle_sim/vehicle.hpp"

namespace vehicle_sim {

/// A running vehicle simulator: the key store of one state directory behind
/// the three key-management services and the clamp control service on
/// D-Bus, steered through a control socket in the state directory.
class VehicleRuntime {
public:
    static constexpr const char* kSocketName = "control.sock";
    static constexpr const char* kLockName = "vehicle.lock";

    struct Options {
        std::string directory;
        std::chrono::seconds challengeLifetime{600};
        bool clamp15On = false;
        std::vector<std::string> failPoints;
    };

    explicit VehicleRuntime(Options options);
    ~VehicleRuntime();
    VehicleRuntime(const VehicleRuntime&) = delete;
    VehicleRuntime& operator=(const VehicleRuntime&) = delete;

    /// Loads the state, offers every service and opens the control socket.
    /// False with a reason; what was started is stopped again.
    bool Start(std::string& error);
    /// Withdraws the services and closes the control socket.
    void Stop();

    /// One control command, as the socket takes it:
    ///   ping | status | clamp on|off | service stop|start NAME | fail POINT | fail clear
    /// NAME: DiagServices, TypeIdAccess, GenericUDSService, ClampControl or all.
    /// The answer starts with "ok" or "error: <reason>" on its own line.
    std::string Command(const std::string& command);

    /// The status as one JSON object (running or not: from the state alone
    /// when `runtime` is null).
    static std::string StatusJson(const VehicleState& state, const std::string& directory,
                                  const VehicleRuntime* runtime);

private:
    class Services;

    std::string ServiceCommand(const std::string& action, const std::string& name);

    Options options_;
    std::unique_ptr<Vehicle> vehicle_;
    FailPoints failPoints_;
    std::unique_ptr<Services> services_;
    std::unique_ptr<ControlServer> control_;
    unique_fd::UniqueFd lockFd_;
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_VEHICLE_RUNTIME_HPP
