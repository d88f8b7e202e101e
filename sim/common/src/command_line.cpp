#include "sim_common/command_line.hpp"

#include <algorithm>
#include <iostream>

#include "sim_common/sim_defaults.hpp"

namespace sim_common {

std::optional<int> ParseCommand(CLI::App& command, std::vector<std::string> arguments,
                                std::string& error) {
    // CLI11 takes a vector of arguments last first.
    std::reverse(arguments.begin(), arguments.end());
    try {
        command.parse(arguments);
    } catch (const CLI::CallForHelp&) {
        std::cout << command.help();
        return kExitOk;
    } catch (const CLI::ParseError& problem) {
        error = problem.what();
        std::replace(error.begin(), error.end(), '\n', ' ');
        return kExitUsage;
    }
    return std::nullopt;
}

}  // namespace sim_common
