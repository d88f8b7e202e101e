#ifndef SIM_COMMON_COMMAND_LINE_HPP
#define SIM_COMMON_COMMAND_LINE_HPP

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

namespace sim_common {

/// Parses the arguments after a command's name into `command`. Returns the
/// exit code when nothing is left to do: the help printed on standard output
/// (kExitOk), or a bad command line (kExitUsage) with its one-line reason in
/// `error`.
std::optional<int> ParseCommand(CLI::App& command, std::vector<std::string> arguments,
                                std::string& error);

}  // namespace sim_common

#endif  // SIM_COMMON_COMMAND_LINE_HPP
