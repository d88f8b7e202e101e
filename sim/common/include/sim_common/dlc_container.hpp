#ifndef SIM_COMMON_DLC_CONTAINER_HPP
#define SIM_COMMON_DLC_CONTAINER_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim_common/vehicle_keys.hpp"

namespace sim_common {

/// The DLC container the backend simulator builds and the vehicle simulator
/// installs. Layout (big-endian numbers):
///
///   0   4  magic "KDLC"
///   4   1  format version (1)
///   5  17  VIN
///  22   2  training counter the container was made for
///  24  16  challenge
///  40  16  initial counter block for the key encryption
///  56  64  next generation's key block, AES-128/CTR under the current encryption key
/// 120  32  HMAC-SHA-256 of bytes 0..119 under the current MAC key
struct DlcContainer {
    static constexpr std::uint8_t kVersion = 1;
    static constexpr char kMagic[4] = {'K', 'D', 'L', 'C'};
    static constexpr std::size_t kIvSize = 16;
    static constexpr std::size_t kMacSize = 32;
    static constexpr std::size_t kMacOffset = 120;
    static constexpr std::size_t kSize = kMacOffset + kMacSize;

    std::uint8_t version = kVersion;
    std::string vin;
    std::uint16_t trainingCounter = 0;
    std::vector<std::uint8_t> challenge;
    std::vector<std::uint8_t> iv;
    std::vector<std::uint8_t> encryptedKeys;
    std::vector<std::uint8_t> mac;
};

enum class ContainerParseError {
    kNone,
    /// Wrong magic, wrong size or fields that cannot be read.
    kMalformatted,
    /// Good magic, but a format version this code does not know.
    kUnsupportedVersion,
};

struct ContainerParseResult {
    ContainerParseError error = ContainerParseError::kNone;
    DlcContainer container;
};

/// Builds the container that moves a vehicle from `current` (generation
/// `trainingCounter`) to `next`. `iv` must be kIvSize bytes.
std::vector<std::uint8_t> BuildDlcContainer(const std::string& vin, std::uint16_t trainingCounter,
                                            const std::vector<std::uint8_t>& challenge,
                                            const VehicleKeys& current, const VehicleKeys& next,
                                            const std::vector<std::uint8_t>& iv);

/// Same with a random IV.
std::vector<std::uint8_t> BuildDlcContainer(const std::string& vin, std::uint16_t trainingCounter,
                                            const std::vector<std::uint8_t>& challenge,
                                            const VehicleKeys& current, const VehicleKeys& next);

/// Splits the bytes into fields; checks structure only, not the MAC.
ContainerParseResult ParseDlcContainer(const std::vector<std::uint8_t>& bytes);

/// True when the MAC of `bytes` (a whole container) was made with `current`'s MAC key.
bool HasValidMac(const std::vector<std::uint8_t>& bytes, const VehicleKeys& current);

/// The next generation's keys carried by `container`; nothing when its key
/// block has the wrong size.
std::optional<VehicleKeys> DecryptNextKeys(const DlcContainer& container,
                                           const VehicleKeys& current);

/// Random bytes from the system's generator.
std::vector<std::uint8_t> RandomBytes(std::size_t count);

}  // namespace sim_common

#endif  // SIM_COMMON_DLC_CONTAINER_HPP
