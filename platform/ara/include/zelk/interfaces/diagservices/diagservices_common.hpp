#ifndef ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_COMMON_HPP
#define ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_COMMON_HPP

#include <array>
#include <cstdint>
#include <vector>

#include "ara/com/application_error_exception.hpp"

/// Types shared by the proxy and the skeleton of the key-management system's
/// diagnostic service.
namespace zelk::interfaces::diagservices {

/// The instance the client looks for and the key-management system offers.
inline constexpr const char* kInstance = "zelk::interfaces::diagservices::DiagServices";

struct DebugOutput {
    std::vector<std::uint8_t> response;
};
struct GetIdentityHashOutput {
    std::array<std::uint8_t, 16> identityHash;
};
struct GetKeyListOutput {
    std::vector<std::uint16_t> typeIds;
};
struct GetMissingKeyListOutput {
    std::vector<std::uint16_t> typeIds;
};
struct GetPssHashOutput {
    std::array<std::uint8_t, 16> pssHash;
};
struct GetStatusOutput {
    std::uint8_t state;
    std::uint16_t trainingCounter;
};
struct GetTrainingCounterOutput {
    std::uint16_t trainingCounter;
};
struct GetZelkVINOutput {
    std::array<std::uint8_t, 17> vin;
};

/// The application errors of the interface, error domain "DiagServices".
enum class DiagServicesErrc : std::int32_t {
    ZELK_ERROR_GENERAL = 1,
    ZELK_ERROR_TYPEID_NOT_SUPPORTED = 21,
    ZELK_ERROR_BUSY = 23,
    ZELK_ERROR_PRECONDITION_NOT_MET = 24,
    ZELK_ERROR_NVM_WRITE_FAILED = 28,
    ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED = 29,
    ZELK_ERROR_DLC_INVALID_MAC = 30,
    ZELK_ERROR_DLC_MALFORMATTED = 31,
    ZELK_ERROR_DLC_DEPRECATED = 32,
    ZELK_ERROR_DLC_VERIFICATION_MISMATCH = 33,
    ZELK_ERROR_DLC_UNSUPPORTED_VERSION = 34,
    ZELK_ERROR_DLC_KEYGENUS_NOT_DERIVABLE = 35,
    ZELK_ERROR_DLC_MISSING_KEY = 36,
    ZELK_ERROR_CONFIG_NVM_RAM_BUFFER_SIZE_TOO_SMALL = 40,
    ZELK_ERROR_CONFIG_MAX_DLC_LENGTH_TOO_SMALL = 41,
    ZELK_ERROR_CONFIG_TYPEID_NOT_CONFIGURED = 42,
    ZELK_ERROR_CRYPTO_E_BUSY = 50,
    ZELK_ERROR_CRYPTO_E_QUEUE_FULL = 51,
    ZELK_ERROR_CRYPTO_E_KEY_WRITE_FAIL = 53,
    ZELK_ERROR_CRYPTO_E_KEY_SIZE_MISMATCH = 54,
};

}  // namespace zelk::interfaces::diagservices

#endif  // ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_COMMON_HPP
