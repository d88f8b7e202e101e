#ifndef SIM_COMMON_VEHICLE_KEYS_HPP
#define SIM_COMMON_VEHICLE_KEYS_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim_common {

constexpr std::size_t kVinSize = 17;
constexpr std::size_t kChallengeSize = 16;
constexpr std::size_t kIdentityHashSize = 16;
constexpr std::size_t kPssHashSize = 16;

/// One generation of a vehicle's key material. Generation n belongs to the
/// training counter n; a container made for generation n carries the keys
/// of generation n + 1.
struct VehicleKeys {
    static constexpr std::size_t kIdentityKeySize = 16;
    static constexpr std::size_t kMacKeySize = 32;
    static constexpr std::size_t kEncryptionKeySize = 16;
    static constexpr std::size_t kBlockSize = kIdentityKeySize + kMacKeySize + kEncryptionKeySize;

    std::vector<std::uint8_t> identityKey;
    std::vector<std::uint8_t> macKey;
    std::vector<std::uint8_t> encryptionKey;

    /// identity key | MAC key | encryption key, kBlockSize bytes.
    std::vector<std::uint8_t> Serialize() const;
    /// Nothing unless `block` is exactly kBlockSize bytes.
    static std::optional<VehicleKeys> Deserialize(const std::vector<std::uint8_t>& block);

    bool operator==(const VehicleKeys& other) const;
    bool operator!=(const VehicleKeys& other) const { return !(*this == other); }
};

/// The keys both simulators derive from the shared secret: HKDF-SHA-256 with
/// the secret as input key material and the VIN and counter in the info.
VehicleKeys DeriveVehicleKeys(std::string_view secret, std::string_view vin,
                              std::uint16_t trainingCounter);

/// HMAC-SHA-256 of the 16 challenge bytes under the identity key, first 16 bytes.
std::vector<std::uint8_t> IdentityHash(const VehicleKeys& keys,
                                       const std::vector<std::uint8_t>& challenge);

/// SHA-256 over the key block, first 16 bytes: changes with every generation.
std::vector<std::uint8_t> PssHash(const VehicleKeys& keys);

/// 17 characters, digits and upper-case letters.
bool IsValidVin(std::string_view vin);

/// Byte-wise equality that takes the same time wherever the first difference is.
bool ConstantTimeEqual(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b);

}  // namespace sim_common

#endif  // SIM_COMMON_VEHICLE_KEYS_HPP
