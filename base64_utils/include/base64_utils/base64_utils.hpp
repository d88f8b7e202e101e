#ifndef BASE64_UTILS_BASE64_UTILS_HPP
#define BASE64_UTILS_BASE64_UTILS_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "base64_utils/base64_codec.hpp"

namespace base64_utils {

/// Base64 entry points over strings and byte vectors. Decoding never throws on
/// bad input: an empty result means nothing could be decoded (empty input, a
/// first significant byte that is "=" or invalid, or a lone sextet at the end);
/// text after the first "=" or invalid byte is ignored.
class Base64Utils {
public:
    Base64Utils() = delete;

    static std::string Base64Encode(const std::string& text);
    static std::string Base64Decode(const std::string& text);
    /// Forwards to base64_decode.
    static std::int64_t Base64Decode(const std::string& text, std::string& out, std::uint64_t pos);
    /// `bytes` must not be empty: an empty vector aborts the process.
    static std::string Base64EncodeFromBinaryVector(const std::vector<std::uint8_t>& bytes);
    static std::vector<std::uint8_t> Base64DecodeToBinaryVector(const std::string& text);
    static bool Base64Validate(const std::string& text);

    /// URL-safe alphabet ("-" and "_"), "=" padding kept.
    static std::string Base64UrlEncode(const std::string& text);
    static std::string Base64UrlDecode(const std::string& text);
    /// `bytes` must not be empty: an empty vector aborts the process.
    static std::string Base64UrlEncodeFromBinaryVector(const std::vector<std::uint8_t>& bytes);
    static std::vector<std::uint8_t> Base64UrlDecodeToBinaryVector(const std::string& text);
};

}  // namespace base64_utils

#endif  // BASE64_UTILS_BASE64_UTILS_HPP
