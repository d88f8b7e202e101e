#ifndef BACKEND_SIM_BACKEND_SIM_APP_HPP
#define BACKEND_SIM_BACKEND_SIM_APP_HPP

#include <string>
#include <vector>

namespace backend_sim {

/// The command line of kelvane-backend-sim (`arguments` without the program
/// name): `run` serves until SIGINT/SIGTERM, `push` publishes one push
/// message. Returns the exit code: 0 ok, 1 failure, 2 bad command line.
int BackendSimMain(const std::vector<std::string>& arguments);

}  // namespace backend_sim

#endif  // BACKEND_SIM_BACKEND_SIM_APP_HPP
