// The kill-during-write test's victim: moves a key store on a generation at a time until killed.
#include <iostream>
#include <string>

#include "sim_common/vehicle_keys.hpp"
#include "vehicle_sim/vehicle_state.hpp"

int main(int argc, char** argv) {
    std::string error;
    auto state = vehicle_sim::VehicleState::Load(argc == 3 ? argv[1] : "", error);
    while (state) {
        state->trainingCounter = static_cast<std::uint16_t>(state->trainingCounter + 1);
        state->keys = sim_common::DeriveVehicleKeys(argv[2], state->vin, state->trainingCounter);
        if (!state->Save(argv[1], error)) {
            break;
        }
    }
    std::cerr << "usage: vehicle_state_writer DIR SECRET: " << error << std::endl;
    return 1;
}
