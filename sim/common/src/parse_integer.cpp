#include "sim_common/parse_integer.hpp"

#include <charconv>

namespace sim_common {

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
