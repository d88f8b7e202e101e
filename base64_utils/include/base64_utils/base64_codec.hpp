#ifndef BASE64_UTILS_BASE64_CODEC_HPP
#define BASE64_UTILS_BASE64_CODEC_HPP

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

/// The standard Base64 alphabet; the index of a character is its 6-bit value.
extern const std::string base64_chars;

/// Standard alphabet, "=" padding to a multiple of 4. Zero length gives "".
std::string base64_encode(const unsigned char* bytes, std::uint32_t length);

namespace base64_utils {

/// Same text as ::base64_chars.
extern const std::string base64_chars;

/// The characters base64_validate accepts: both alphabets (order has no meaning).
inline constexpr std::string_view kValidationAlphabet =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_-+/";

inline constexpr std::uint8_t kWhiteSpace = 128;
inline constexpr std::uint8_t kPadding = 129;
inline constexpr std::uint8_t kInvalid = 255;

namespace detail {
constexpr std::array<std::uint8_t, 256> MakeDecodeTable() {
    std::array<std::uint8_t, 256> table{};
    for (auto& entry : table) {
        entry = kInvalid;
    }
    constexpr std::string_view standard =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t i = 0; i < standard.size(); ++i) {
        table[static_cast<unsigned char>(standard[i])] = static_cast<std::uint8_t>(i);
    }
    table['-'] = 62;
    table['_'] = 63;
    table['\t'] = kWhiteSpace;
    table['\n'] = kWhiteSpace;
    table['\r'] = kWhiteSpace;
    table[' '] = kWhiteSpace;
    table['='] = kPadding;
    return table;
}
}  // namespace detail

/// Input byte -> sextet (0-63, both alphabets), kWhiteSpace (skipped), kPadding
/// ("=", ends the data) or kInvalid (ends the data).
inline constexpr std::array<std::uint8_t, 256> BASE64_TO_BIN_URL_SAFE = detail::MakeDecodeTable();

/// Lenient decode of `in` from `pos` into `out` (cleared first): white space is
/// skipped, padding is optional, both alphabets may be mixed, and decoding stops
/// silently at the first "=" or invalid byte. Returns the position after the
/// consumed text (including up to two "=" ending a partial group), `pos`
/// unchanged when it is at or past the end, or -1 when a lone sextet is left
/// over (the bytes before it stay in `out`).
std::int64_t base64_decode(const std::string& in, std::string& out, std::uint64_t pos);

/// True for standard or URL-safe text, padded (length a multiple of 4, at most
/// two trailing "=") or unpadded (length not 4k+1). White space is not accepted.
bool base64_validate(const std::string& text);

}  // namespace base64_utils

#endif  // BASE64_UTILS_BASE64_CODEC_HPP
