#include "sim_common/vehicle_keys.hpp"

#include <botan/hash.h>
#include <botan/kdf.h>
#include <botan/mac.h>

#include <algorithm>
#include <memory>

namespace sim_common {
namespace {

constexpr std::string_view kSalt = "kelvane-sim-keys-v1";

std::vector<std::uint8_t> Derive(std::string_view secret, std::string_view label,
                                 std::string_view vin, std::uint16_t counter, std::size_t size) {
    std::string info(label);
    info.push_back('|');
    info.append(vin);
    info.push_back('|');
    info.push_back(static_cast<char>(counter >> 8));
    info.push_back(static_cast<char>(counter & 0xFF));
    const auto kdf = Botan::KDF::create_or_throw("HKDF(SHA-256)");
    const auto key = kdf->derive_key(size, reinterpret_cast<const std::uint8_t*>(secret.data()),
                                     secret.size(), std::string(kSalt), info);
    return std::vector<std::uint8_t>(key.begin(), key.end());
}

}  // namespace

std::vector<std::uint8_t> VehicleKeys::Serialize() const {
    std::vector<std::uint8_t> block;
    block.reserve(kBlockSize);
    block.insert(block.end(), identityKey.begin(), identityKey.end());
    block.insert(block.end(), macKey.begin(), macKey.end());
    block.insert(block.end(), encryptionKey.begin(), encryptionKey.end());
    return block;
}

std::optional<VehicleKeys> VehicleKeys::Deserialize(const std::vector<std::uint8_t>& block) {
    if (block.size() != kBlockSize) {
        return std::nullopt;
    }
    const auto identityEnd = block.begin() + kIdentityKeySize;
    const auto macEnd = identityEnd + kMacKeySize;
    VehicleKeys keys;
    keys.identityKey.assign(block.begin(), identityEnd);
    keys.macKey.assign(identityEnd, macEnd);
    keys.encryptionKey.assign(macEnd, block.end());
    return keys;
}

bool VehicleKeys::operator==(const VehicleKeys& other) const {
    return identityKey == other.identityKey && macKey == other.macKey &&
           encryptionKey == other.encryptionKey;
}

VehicleKeys DeriveVehicleKeys(std::string_view secret, std::string_view vin,
                              std::uint16_t trainingCounter) {
    VehicleKeys keys;
    keys.identityKey =
        Derive(secret, "identity", vin, trainingCounter, VehicleKeys::kIdentityKeySize);
    keys.macKey = Derive(secret, "mac", vin, trainingCounter, VehicleKeys::kMacKeySize);
    keys.encryptionKey =
        Derive(secret, "encryption", vin, trainingCounter, VehicleKeys::kEncryptionKeySize);
    return keys;
}

std::vector<std::uint8_t> IdentityHash(const VehicleKeys& keys,
                                       const std::vector<std::uint8_t>& challenge) {
    const auto mac = Botan::MessageAuthenticationCode::create_or_throw("HMAC(SHA-256)");
    mac->set_key(keys.identityKey);
    mac->update(challenge);
    const auto tag = mac->final();
    return std::vector<std::uint8_t>(tag.begin(), tag.begin() + kIdentityHashSize);
}

std::vector<std::uint8_t> PssHash(const VehicleKeys& keys) {
    const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
    hash->update("pss|");
    hash->update(keys.Serialize());
    const auto digest = hash->final();
    return std::vector<std::uint8_t>(digest.begin(), digest.begin() + kPssHashSize);
}

bool IsValidVin(std::string_view vin) {
    return vin.size() == kVinSize && std::all_of(vin.begin(), vin.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z');
           });
}

bool ConstantTimeEqual(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
    if (a.size() != b.size()) {
        return false;
    }
    std::uint8_t difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference = static_cast<std::uint8_t>(difference | (a[i] ^ b[i]));
    }
    return difference == 0;
}

}  // namespace sim_common
