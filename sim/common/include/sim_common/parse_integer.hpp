#ifndef SIM_COMMON_PARSE_INTEGER_HPP
#define SIM_COMMON_PARSE_INTEGER_HPP

#include <cstdint>
#include <optional>
#include <string_view>

namespace sim_common {

/// A decimal integer within [min, max], else nothing (no trailing characters,
/// no overflow).
std::optional<std::int64_t> ParseInteger(std::string_view text, std::int64_t min, std::int64_t max);

}  // namespace sim_common

#endif  // SIM_COMMON_PARSE_INTEGER_HPP
