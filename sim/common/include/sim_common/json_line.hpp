#ifndef SIM_COMMON_JSON_LINE_HPP
#define SIM_COMMON_JSON_LINE_HPP

#include <cstdint>
#include <string>
#include <string_view>

namespace sim_common {

/// One JSON object written field by field, for JSON-lines logs and status
/// output. Keys are written in the order they are added.
class JsonLine {
public:
    JsonLine& String(std::string_view key, std::string_view value);
    JsonLine& Number(std::string_view key, std::int64_t value);
    JsonLine& Bool(std::string_view key, bool value);
    /// `json` must already be a JSON value (for example another JsonLine's Str()).
    JsonLine& Raw(std::string_view key, std::string_view json);

    /// The object, without a line end.
    std::string Str() const { return "{" + body_ + "}"; }

    /// `text` as a JSON string literal. Control characters and bytes above
    /// 0x7E are written as \u00XX, so any byte sequence gives valid JSON.
    static std::string Quote(std::string_view text);

private:
    void Key(std::string_view key);

    std::string body_;
};

}  // namespace sim_common

#endif  // SIM_COMMON_JSON_LINE_HPP
