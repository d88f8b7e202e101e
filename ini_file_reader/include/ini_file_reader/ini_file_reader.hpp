#ifndef INI_FILE_READER_INI_FILE_READER_HPP
#define INI_FILE_READER_INI_FILE_READER_HPP

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ini_file_reader {

/// Reads INI files: "[section]" lines (a line starting with "[" and holding a
/// "]"), "key=value" lines split at the first "=", "#" comment lines, lines of
/// at most 2000 characters. Keys and values are trimmed of surrounding blanks;
/// keys before the first section belong to the section "". A later key
/// replaces an earlier one of the same name.
///
/// A line that cannot be read is reported in Errors() with the file and line
/// number and skipped; every other line of the file is still taken.
class IniFileReader {
public:
    static constexpr std::size_t kMaxLineLength = 2000;

    /// Reads `path`; true when the file was read without any error.
    bool Load(const std::string& path);
    /// Same for text already in memory; `name` stands for the file in messages.
    bool Parse(const std::string& text, const std::string& name);

    /// "<file>:<line>: <problem>", or "<file>: <problem>" for the file as a whole.
    const std::vector<std::string>& Errors() const { return errors_; }

    bool HasSection(const std::string& section) const;
    std::optional<std::string> Get(const std::string& section, const std::string& key) const;
    std::string Get(const std::string& section, const std::string& key,
                    const std::string& fallback) const;
    std::vector<std::string> Sections() const;
    /// The section's keys in sorted order.
    std::vector<std::string> Keys(const std::string& section) const;

private:
    std::map<std::string, std::map<std::string, std::string>> sections_;
    std::vector<std::string> errors_;
};

}  // namespace ini_file_reader

#endif  // INI_FILE_READER_INI_FILE_READER_HPP
