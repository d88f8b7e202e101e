#ifndef VEHICLE_SIM_VEHICLE_STATE_HPP
#define VEHICLE_SIM_VEHICLE_STATE_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim_common/vehicle_keys.hpp"

namespace vehicle_sim {

/// Everything the simulated key-management system keeps across restarts.
/// Stored as "name=value" lines ending in a SHA-256 checksum line, replaced
/// atomically on every change, so a reader finds the old or the new state.
struct VehicleState {
    static constexpr const char* kFileName = "keystore";
    static constexpr const char* kIdentityFileName = "tesmo_string.bin";

    std::string vin;
    std::uint16_t trainingCounter = 0;
    sim_common::VehicleKeys keys;
    std::string partNumber;
    /// Certificates are handed out PEM-encoded instead of DER when set.
    bool pemCertificates = false;
    std::vector<std::uint8_t> rootKey;
    std::vector<std::uint8_t> rootCertificate;
    std::vector<std::uint8_t> baseKey;
    std::vector<std::uint8_t> baseCertificate;

    std::string Serialize() const;
    /// Nothing, with a reason, for text that is not a complete, intact state.
    static std::optional<VehicleState> Parse(const std::string& text, std::string& error);

    /// Reads `directory`/keystore.
    static std::optional<VehicleState> Load(const std::string& directory, std::string& error);
    /// Replaces `directory`/keystore atomically.
    bool Save(const std::string& directory, std::string& error) const;

    bool operator==(const VehicleState& other) const;
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_VEHICLE_STATE_HPP
