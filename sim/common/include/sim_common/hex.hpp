#ifndef SIM_COMMON_HEX_HPP
#define SIM_COMMON_HEX_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim_common {

/// Upper-case hexadecimal, two digits per byte, no separator: the form the
/// client sends hashes in.
std::string ToHex(const std::vector<std::uint8_t>& bytes);

/// Either case accepted; nothing on an odd length or a non-hex character.
std::optional<std::vector<std::uint8_t>> FromHex(std::string_view text);

/// Exactly four hex digits (either case), else nothing.
std::optional<std::uint16_t> CounterFromHex(std::string_view text);

}  // namespace sim_common

#endif  // SIM_COMMON_HEX_HPP
