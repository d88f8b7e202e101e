#ifndef BASE64_UTILS_SRC_BASE64_DECODER_HPP
#define BASE64_UTILS_SRC_BASE64_DECODER_HPP

#include <cstddef>
#include <cstdint>

namespace base64_utils::detail {

/// Room DecodeInto needs for `size` input bytes decoded from `pos` (< size),
/// including the one byte its wide stores may write past the data.
inline std::size_t DecodeCapacity(std::size_t size, std::size_t pos) {
    return (size - pos) / 4 * 3 + 3;
}

/// The decoding of base64_decode over raw memory. `out` must hold
/// DecodeCapacity(size, pos) bytes; `produced` gets the number of bytes decoded.
/// `pos` must be below `size`.
std::int64_t DecodeInto(const unsigned char* in, std::size_t size, std::size_t pos,
                        unsigned char* out, std::size_t& produced);

}  // namespace base64_utils::detail

#endif  // BASE64_UTILS_SRC_BASE64_DECODER_HPP
