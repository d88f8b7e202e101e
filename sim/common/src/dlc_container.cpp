#include "sim_common/dlc_container.hpp"

#include <botan/mac.h>
#include <botan/stream_cipher.h>
#include <botan/system_rng.h>

#include <algorithm>
#include <stdexcept>

namespace sim_common {
namespace {

constexpr std::size_t kVersionOffset = 4;
constexpr std::size_t kVinOffset = 5;
constexpr std::size_t kCounterOffset = kVinOffset + kVinSize;
constexpr std::size_t kChallengeOffset = kCounterOffset + 2;
constexpr std::size_t kIvOffset = kChallengeOffset + kChallengeSize;
constexpr std::size_t kKeysOffset = kIvOffset + DlcContainer::kIvSize;
static_assert(kKeysOffset + VehicleKeys::kBlockSize == DlcContainer::kMacOffset,
              "container layout and its documentation disagree");

std::vector<std::uint8_t> Mac(const std::uint8_t* data, std::size_t size, const VehicleKeys& keys) {
    const auto mac = Botan::MessageAuthenticationCode::create_or_throw("HMAC(SHA-256)");
    mac->set_key(keys.macKey);
    mac->update(data, size);
    const auto tag = mac->final();
    return std::vector<std::uint8_t>(tag.begin(), tag.end());
}

std::vector<std::uint8_t> Ctr(const std::vector<std::uint8_t>& input,
                              const std::vector<std::uint8_t>& key,
                              const std::vector<std::uint8_t>& iv) {
    const auto cipher = Botan::StreamCipher::create_or_throw("CTR-BE(AES-128)");
    cipher->set_key(key);
    cipher->set_iv(iv.data(), iv.size());
    std::vector<std::uint8_t> output = input;
    cipher->cipher1(output.data(), output.size());
    return output;
}

}  // namespace

std::vector<std::uint8_t> BuildDlcContainer(const std::string& vin, std::uint16_t trainingCounter,
                                            const std::vector<std::uint8_t>& challenge,
                                            const VehicleKeys& current, const VehicleKeys& next,
                                            const std::vector<std::uint8_t>& iv) {
    if (vin.size() != kVinSize || challenge.size() != kChallengeSize ||
        iv.size() != DlcContainer::kIvSize) {
        throw std::invalid_argument("container fields of the wrong size");
    }
    std::vector<std::uint8_t> bytes(std::begin(DlcContainer::kMagic),
                                    std::end(DlcContainer::kMagic));
    bytes.reserve(DlcContainer::kSize);
    bytes.push_back(DlcContainer::kVersion);
    bytes.insert(bytes.end(), vin.begin(), vin.end());
    bytes.push_back(static_cast<std::uint8_t>(trainingCounter >> 8));
    bytes.push_back(static_cast<std::uint8_t>(trainingCounter & 0xFF));
    bytes.insert(bytes.end(), challenge.begin(), challenge.end());
    bytes.insert(bytes.end(), iv.begin(), iv.end());
    const auto encrypted = Ctr(next.Serialize(), current.encryptionKey, iv);
    bytes.insert(bytes.end(), encrypted.begin(), encrypted.end());
    const auto tag = Mac(bytes.data(), bytes.size(), current);
    bytes.insert(bytes.end(), tag.begin(), tag.end());
    return bytes;
}

std::vector<std::uint8_t> BuildDlcContainer(const std::string& vin, std::uint16_t trainingCounter,
                                            const std::vector<std::uint8_t>& challenge,
                                            const VehicleKeys& current, const VehicleKeys& next) {
    return BuildDlcContainer(vin, trainingCounter, challenge, current, next,
                             RandomBytes(DlcContainer::kIvSize));
}

ContainerParseResult ParseDlcContainer(const std::vector<std::uint8_t>& bytes) {
    ContainerParseResult result;
    if (bytes.size() <= kVersionOffset ||
        !std::equal(std::begin(DlcContainer::kMagic), std::end(DlcContainer::kMagic),
                    bytes.begin())) {
        result.error = ContainerParseError::kMalformatted;
        return result;
    }
    // The version decides the layout, so it is judged before the size.
    if (bytes[kVersionOffset] != DlcContainer::kVersion) {
        result.error = ContainerParseError::kUnsupportedVersion;
        return result;
    }
    if (bytes.size() != DlcContainer::kSize) {
        result.error = ContainerParseError::kMalformatted;
        return result;
    }
    auto& container = result.container;
    const auto at = [&bytes](std::size_t offset) { return bytes.begin() + offset; };
    container.version = bytes[kVersionOffset];
    container.vin.assign(at(kVinOffset), at(kCounterOffset));
    container.trainingCounter =
        static_cast<std::uint16_t>((bytes[kCounterOffset] << 8) | bytes[kCounterOffset + 1]);
    container.challenge.assign(at(kChallengeOffset), at(kIvOffset));
    container.iv.assign(at(kIvOffset), at(kKeysOffset));
    container.encryptedKeys.assign(at(kKeysOffset), at(DlcContainer::kMacOffset));
    container.mac.assign(at(DlcContainer::kMacOffset), bytes.end());
    if (!IsValidVin(container.vin)) {
        result.error = ContainerParseError::kMalformatted;
    }
    return result;
}

bool HasValidMac(const std::vector<std::uint8_t>& bytes, const VehicleKeys& current) {
    if (bytes.size() != DlcContainer::kSize) {
        return false;
    }
    const auto expected = Mac(bytes.data(), DlcContainer::kMacOffset, current);
    const std::vector<std::uint8_t> actual(bytes.begin() + DlcContainer::kMacOffset, bytes.end());
    return ConstantTimeEqual(expected, actual);
}

std::optional<VehicleKeys> DecryptNextKeys(const DlcContainer& container,
                                           const VehicleKeys& current) {
    if (container.iv.size() != DlcContainer::kIvSize) {
        return std::nullopt;
    }
    return VehicleKeys::Deserialize(
        Ctr(container.encryptedKeys, current.encryptionKey, container.iv));
}

std::vector<std::uint8_t> RandomBytes(std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    Botan::system_rng().randomize(bytes.data(), bytes.size());
    return bytes;
}

}  // namespace sim_common
