#ifndef VEHICLE_SIM_VEHICLE_SIM_APP_HPP
#define VEHICLE_SIM_VEHICLE_SIM_APP_HPP

#include <string>
#include <vector>

namespace vehicle_sim {

/// The command line of kelvane-vehicle-sim (`arguments` without the program
/// name): init, run, clamp, status, service, fail. Returns the exit code:
/// 0 ok, 1 failure, 2 bad command line.
int VehicleSimMain(const std::vector<std::string>& arguments);

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_VEHICLE_SIM_APP_HPP
