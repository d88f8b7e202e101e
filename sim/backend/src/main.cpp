#include <string>
#include <vector>

#include "backend_sim/backend_sim_app.hpp"

int main(int argc, char** argv) {
    return backend_sim::BackendSimMain(std::vector<std::string>(argv + 1, argv + argc));
}
