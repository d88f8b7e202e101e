#include "ini_file_reader/ini_file_reader.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace ini_file_reader {
namespace {

std::string Trim(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos) {
        return {};
    }
    const auto end = text.find_last_not_of(" \t\r");
    return text.substr(begin, end - begin + 1);
}

}  // namespace

bool IniFileReader::Load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        sections_.clear();
        errors_.assign(1, path + ": cannot open file: " + std::strerror(errno));
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    return Parse(content.str(), path);
}

bool IniFileReader::Parse(const std::string& text, const std::string& name) {
    sections_.clear();
    errors_.clear();
    std::string section;
    std::size_t lineNumber = 0;
    std::istringstream lines(text);
    std::string raw;
    while (std::getline(lines, raw)) {
        ++lineNumber;
        const auto where = name + ":" + std::to_string(lineNumber) + ": ";
        if (raw.size() > kMaxLineLength) {
            errors_.push_back(where + "line longer than " + std::to_string(kMaxLineLength) +
                              " characters, skipped");
            continue;
        }
        const std::string line = Trim(raw);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (line[0] == '[') {
            const auto close = line.rfind(']');
            if (close == std::string::npos) {
                errors_.push_back(where + "section header without ']', skipped");
                continue;
            }
            section = Trim(line.substr(1, close - 1));
            sections_[section];
            continue;
        }
        const auto equals = line.find('=');
        if (equals == std::string::npos) {
            errors_.push_back(where + "expected key=value, skipped");
            continue;
        }
        const std::string key = Trim(line.substr(0, equals));
        if (key.empty()) {
            errors_.push_back(where + "empty key, skipped");
            continue;
        }
        sections_[section][key] = Trim(line.substr(equals + 1));
    }
    return errors_.empty();
}

bool IniFileReader::HasSection(const std::string& section) const {
    return sections_.count(section) != 0;
}

std::optional<std::string> IniFileReader::Get(const std::string& section,
                                              const std::string& key) const {
    const auto s = sections_.find(section);
    if (s == sections_.end()) {
        return std::nullopt;
    }
    const auto k = s->second.find(key);
    if (k == s->second.end()) {
        return std::nullopt;
    }
    return k->second;
}

std::string IniFileReader::Get(const std::string& section, const std::string& key,
                               const std::string& fallback) const {
    return Get(section, key).value_or(fallback);
}

std::vector<std::string> IniFileReader::Sections() const {
    std::vector<std::string> names;
    for (const auto& entry : sections_) {
        names.push_back(entry.first);
    }
    return names;
}

std::vector<std::string> IniFileReader::Keys(const std::string& section) const {
    std::vector<std::string> keys;
    const auto s = sections_.find(section);
    if (s != sections_.end()) {
        for (const auto& entry : s->second) {
            keys.push_back(entry.first);
        }
    }
    return keys;
}

}  // namespace ini_file_reader
