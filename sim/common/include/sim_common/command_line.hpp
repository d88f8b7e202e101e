#ifndef SIM_COMMON_COMMAND_LINE_HPP
#define SIM_COMMON_COMMAND_LINE_HPP

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim_common {

/// The options of one (sub)command: "--name VALUE", "--name=VALUE", flags,
/// repeatable options and positional arguments. Parse() stops at the first
/// problem and keeps a one-line reason; Help() lists everything declared.
class CommandLine {
public:
    /// `usage` is the synopsis line, e.g. "kelvane-backend-sim run [OPTIONS]".
    CommandLine(std::string usage, std::string description);

    /// An option with a value; `target` keeps its default when the option is absent.
    CommandLine& Option(const std::string& name, const std::string& valueName,
                        const std::string& help, std::string* target);
    /// An option that may be given several times; each value is appended.
    CommandLine& Repeated(const std::string& name, const std::string& valueName,
                          const std::string& help, std::vector<std::string>* target);
    CommandLine& Flag(const std::string& name, const std::string& help, bool* target);
    /// Positional arguments are collected in order; `count` of them are required
    /// (extra ones are an error unless `allowMore`).
    CommandLine& Positionals(const std::string& names, std::size_t count, bool allowMore = false);

    /// False on an unknown option, a missing value or a wrong number of
    /// positional arguments; Error() says which. "--help"/"-h" sets HelpRequested().
    bool Parse(const std::vector<std::string>& arguments);

    bool HelpRequested() const { return helpRequested_; }
    const std::string& Error() const { return error_; }
    const std::vector<std::string>& PositionalValues() const { return positionals_; }
    /// Whether the option was given on the command line.
    bool Given(const std::string& name) const;
    std::string Help() const;

private:
    struct Entry {
        std::string name;
        std::string valueName;
        std::string help;
        std::function<void(const std::string&)> store;
        bool takesValue = true;
    };

    const Entry* Find(std::string_view name) const;

    std::string usage_;
    std::string description_;
    std::vector<Entry> entries_;
    std::string positionalNames_;
    std::size_t positionalCount_ = 0;
    bool allowMorePositionals_ = false;
    std::vector<std::string> positionals_;
    std::vector<std::string> given_;
    bool helpRequested_ = false;
    std::string error_;
};

/// A decimal integer within [min, max], else nothing (no sign for unsigned use,
/// no trailing characters, no overflow).
std::optional<std::int64_t> ParseInteger(std::string_view text, std::int64_t min, std::int64_t max);

}  // namespace sim_common

#endif  // SIM_COMMON_COMMAND_LINE_HPP
