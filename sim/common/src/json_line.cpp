#include "sim_common/json_line.hpp"

namespace sim_common {

JsonLine& JsonLine::String(std::string_view key, std::string_view value) {
    Key(key);
    body_ += Quote(value);
    return *this;
}

JsonLine& JsonLine::Number(std::string_view key, std::int64_t value) {
    Key(key);
    body_ += std::to_string(value);
    return *this;
}

JsonLine& JsonLine::Bool(std::string_view key, bool value) {
    Key(key);
    body_ += value ? "true" : "false";
    return *this;
}

JsonLine& JsonLine::Raw(std::string_view key, std::string_view json) {
    Key(key);
    body_ += json;
    return *this;
}

void JsonLine::Key(std::string_view key) {
    if (!body_.empty()) {
        body_ += ',';
    }
    body_ += Quote(key);
    body_ += ':';
}

std::string JsonLine::Quote(std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string quoted = "\"";
    quoted.reserve(text.size() + 2);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (c == '\n') {
            quoted += "\\n";
        } else if (c == '\r') {
            quoted += "\\r";
        } else if (c == '\t') {
            quoted += "\\t";
        } else if (byte < 0x20 || byte > 0x7E) {
            quoted += "\\u00";
            quoted += kHex[byte >> 4];
            quoted += kHex[byte & 0x0F];
        } else {
            quoted += c;
        }
    }
    quoted += '"';
    return quoted;
}

}  // namespace sim_common
