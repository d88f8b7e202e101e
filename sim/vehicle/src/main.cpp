#include <string>
#include <vector>

#include "vehicle_sim/vehicle_sim_app.hpp"

int main(int argc, char** argv) {
    return vehicle_sim::VehicleSimMain(std::vector<std::string>(argv + 1, argv + argc));
}
