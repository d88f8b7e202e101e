// Rewrites a key store as fast as it can until killed: each write moves it to
// the next training counter and that generation's keys. A test kills this
// process mid-write and checks that the store still loads.
#include <iostream>
#include <string>

#include "sim_common/vehicle_keys.hpp"
#include "vehicle_sim/vehicle_state.hpp"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: vehicle_state_writer DIR SECRET" << std::endl;
        return 2;
    }
    const std::string directory = argv[1];
    const std::string secret = argv[2];
    std::string error;
    auto state = vehicle_sim::VehicleState::Load(directory, error);
    if (!state) {
        std::cerr << error << std::endl;
        return 1;
    }
    while (true) {
        state->trainingCounter = static_cast<std::uint16_t>(state->trainingCounter + 1);
        state->keys = sim_common::DeriveVehicleKeys(secret, state->vin, state->trainingCounter);
        if (!state->Save(directory, error)) {
            std::cerr << error << std::endl;
            return 1;
        }
    }
}
