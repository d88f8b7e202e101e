#include "sim_common/hex.hpp"

#include <botan/exceptn.h>
#include <botan/hex.h>

namespace sim_common {

std::string ToHex(const std::vector<std::uint8_t>& bytes) {
    return Botan::hex_encode(bytes.data(), bytes.size(), true);
}

std::optional<std::vector<std::uint8_t>> FromHex(std::string_view text) {
    try {
        return Botan::hex_decode(text.data(), text.size(), false);
    } catch (const Botan::Invalid_Argument&) {
        return std::nullopt;
    }
}

std::optional<std::uint16_t> CounterFromHex(std::string_view text) {
    const auto bytes = text.size() == 4 ? FromHex(text) : std::nullopt;
    if (!bytes) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(((*bytes)[0] << 8) | (*bytes)[1]);
}

}  // namespace sim_common
