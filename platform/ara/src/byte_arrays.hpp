#ifndef ARA_SRC_BYTE_ARRAYS_HPP
#define ARA_SRC_BYTE_ARRAYS_HPP

#include <sdbus-c++/Error.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ara/com/com_error_domain.hpp"

// Fixed-size byte arrays travel as "ay"; these check the length at either end.
namespace ara::com::internal {

/// A reply's bytes as an array; a reply of another length is a binding failure.
template <std::size_t N>
std::array<std::uint8_t, N> ReplyArray(const std::vector<std::uint8_t>& bytes, const char* what) {
    if (bytes.size() != N) {
        throw ComException(ComErrc::kNetworkBindingFailure,
                           std::string(what) + " has " + std::to_string(bytes.size()) +
                               " bytes instead of " + std::to_string(N));
    }
    std::array<std::uint8_t, N> array{};
    std::copy(bytes.begin(), bytes.end(), array.begin());
    return array;
}

/// A request's bytes as an array; a request of another length is refused.
template <std::size_t N>
std::array<std::uint8_t, N> RequestArray(const std::vector<std::uint8_t>& bytes, const char* what) {
    if (bytes.size() != N) {
        throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs",
                           std::string(what) + " must have " + std::to_string(N) + " bytes, not " +
                               std::to_string(bytes.size()));
    }
    std::array<std::uint8_t, N> array{};
    std::copy(bytes.begin(), bytes.end(), array.begin());
    return array;
}

template <std::size_t N>
std::vector<std::uint8_t> Bytes(const std::array<std::uint8_t, N>& array) {
    return std::vector<std::uint8_t>(array.begin(), array.end());
}

}  // namespace ara::com::internal

#endif  // ARA_SRC_BYTE_ARRAYS_HPP
