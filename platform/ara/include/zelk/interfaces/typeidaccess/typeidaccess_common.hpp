#ifndef ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_COMMON_HPP
#define ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_COMMON_HPP

#include <cstdint>
#include <vector>

#include "ara/com/application_error_exception.hpp"

/// Types shared by the proxy and the skeleton of the key-management system's
/// Type-ID access service.
namespace zelk::interfaces::typeidaccess {

/// The instance the client looks for and the key-management system offers.
inline constexpr const char* kInstance = "zelk::interfaces::typeidaccess::TypeIdAccess";

struct GetCertificateOutput {
    std::vector<std::uint8_t> certificate;
};
struct GetDataOutput {
    std::vector<std::uint8_t> data;
};
struct GetKeyOutput {
    std::vector<std::uint8_t> key;
};
struct GetMetaDataOutput {
    std::uint16_t genus;
    std::uint32_t length;
};

/// The application errors of the interface, error domain "TypeIdAccess".
enum class TypeIdAccessErrc : std::int32_t {
    ZELK_ERROR_GENERAL = 2,
    ZELK_ERROR_INVALID_TYPEID = 20,
    ZELK_ERROR_TYPEID_NOT_SUPPORTED = 21,
    ZELK_ERROR_CORRUPTED_KEY_DATA = 22,
    ZELK_ERROR_BUSY = 23,
    ZELK_ERROR_UNEXPECTED_GENUS = 27,
    ZELK_ERROR_CRYPTO_E_BUSY = 50,
    ZELK_ERROR_CRYPTO_E_QUEUE_FULL = 51,
};

}  // namespace zelk::interfaces::typeidaccess

#endif  // ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_COMMON_HPP
