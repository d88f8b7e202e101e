#include "sim_common/hex.hpp"

namespace sim_common {
namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

int Nibble(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

}  // namespace

std::string ToHex(const std::vector<std::uint8_t>& bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0x0F]);
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> FromHex(std::string_view text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = Nibble(text[i]);
        const int low = Nibble(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>((high << 4) | low));
    }
    return bytes;
}

std::string CounterToHex(std::uint16_t counter) {
    return ToHex({static_cast<std::uint8_t>(counter >> 8), static_cast<std::uint8_t>(counter)});
}

std::optional<std::uint16_t> CounterFromHex(std::string_view text) {
    if (text.size() != 4) {
        return std::nullopt;
    }
    const auto bytes = FromHex(text);
    if (!bytes) {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(((*bytes)[0] << 8) | (*bytes)[1]);
}

}  // namespace sim_common
