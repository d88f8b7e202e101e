#include "sim_common/command_line.hpp"

#include <charconv>

namespace sim_common {

CommandLine::CommandLine(std::string usage, std::string description)
    : usage_(std::move(usage)), description_(std::move(description)) {}

CommandLine& CommandLine::Option(const std::string& name, const std::string& valueName,
                                 const std::string& help, std::string* target) {
    entries_.push_back(
        {name, valueName, help, [target](const std::string& value) { *target = value; }, true});
    return *this;
}

CommandLine& CommandLine::Repeated(const std::string& name, const std::string& valueName,
                                   const std::string& help, std::vector<std::string>* target) {
    entries_.push_back({name, valueName, help,
                        [target](const std::string& value) { target->push_back(value); }, true});
    return *this;
}

CommandLine& CommandLine::Flag(const std::string& name, const std::string& help, bool* target) {
    entries_.push_back({name, "", help, [target](const std::string&) { *target = true; }, false});
    return *this;
}

CommandLine& CommandLine::Positionals(const std::string& names, std::size_t count, bool allowMore) {
    positionalNames_ = names;
    positionalCount_ = count;
    allowMorePositionals_ = allowMore;
    return *this;
}

const CommandLine::Entry* CommandLine::Find(std::string_view name) const {
    for (const auto& entry : entries_) {
        if (entry.name == name) {
            return &entry;
        }
    }
    return nullptr;
}

bool CommandLine::Parse(const std::vector<std::string>& arguments) {
    bool optionsEnded = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (optionsEnded || argument.size() < 2 || argument[0] != '-') {
            positionals_.push_back(argument);
            continue;
        }
        if (argument == "--") {
            optionsEnded = true;
            continue;
        }
        if (argument == "--help" || argument == "-h") {
            helpRequested_ = true;
            return true;
        }
        const auto equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        const Entry* entry = Find(name);
        if (entry == nullptr) {
            error_ = "unknown option '" + name + "'";
            return false;
        }
        if (!entry->takesValue) {
            if (equals != std::string::npos) {
                error_ = "option '" + name + "' takes no value";
                return false;
            }
            entry->store("");
        } else if (equals != std::string::npos) {
            entry->store(argument.substr(equals + 1));
        } else if (i + 1 < arguments.size()) {
            entry->store(arguments[++i]);
        } else {
            error_ = "option '" + name + "' needs a value (" + entry->valueName + ")";
            return false;
        }
        given_.push_back(name);
    }
    if (positionals_.size() < positionalCount_) {
        error_ = "missing " + positionalNames_;
        return false;
    }
    if (positionals_.size() > positionalCount_ && !allowMorePositionals_) {
        error_ = "unexpected argument '" + positionals_[positionalCount_] + "'";
        return false;
    }
    return true;
}

bool CommandLine::Given(const std::string& name) const {
    for (const auto& given : given_) {
        if (given == name) {
            return true;
        }
    }
    return false;
}

std::string CommandLine::Help() const {
    std::string text = "Usage: " + usage_ + "\n";
    if (!description_.empty()) {
        text += "\n" + description_ + "\n";
    }
    if (!entries_.empty()) {
        text += "\nOptions:\n";
    }
    for (const auto& entry : entries_) {
        std::string left = "  " + entry.name;
        if (entry.takesValue) {
            left += " " + entry.valueName;
        }
        if (left.size() < 30) {
            left.resize(30, ' ');
        } else {
            left += "\n" + std::string(30, ' ');
        }
        text += left + entry.help + "\n";
    }
    text += "  --help                      show this text\n";
    return text;
}

std::optional<std::int64_t> ParseInteger(std::string_view text, std::int64_t min,
                                         std::int64_t max) {
    std::int64_t value = 0;
    const char* begin = text.data();
    const char* end = text.data() + text.size();
    if (begin != end && *begin == '+') {
        ++begin;
    }
    const auto [ptr, ec] = std::from_chars(begin, end, value);
    if (text.empty() || ec != std::errc() || ptr != end || value < min || value > max) {
        return std::nullopt;
    }
    return value;
}

}  // namespace sim_common
