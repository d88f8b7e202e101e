#ifndef TEE_ACCESS_STATUS_HPP
#define TEE_ACCESS_STATUS_HPP

#include <cstdint>

/// The 8-bit status every service accessor returns. Any value not listed here
/// is the code of the application error the remote service raised.
namespace qervo::tee::access_status {

inline constexpr std::uint8_t kOk = 100;
/// No proxy: the service has not been found (or went away).
inline constexpr std::uint8_t kNotAvailable = 101;
/// Generic UDS access: the identity file cannot be read.
inline constexpr std::uint8_t kIdentityFileUnreadable = 102;
/// Type-ID access: the certificate type id is neither "BASE" nor "ZELK".
inline constexpr std::uint8_t kUnknownTypeId = 102;
/// Diagnostic services: the identity-hash challenge is not 16 bytes long.
inline constexpr std::uint8_t kBadChallengeSize = 103;

}  // namespace qervo::tee::access_status

#endif  // TEE_ACCESS_STATUS_HPP
