#ifndef VEHICLE_SIM_VEHICLE_HPP
#define VEHICLE_SIM_VEHICLE_HPP

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vehicle_sim/vehicle_state.hpp"

namespace vehicle_sim {

/// Outcome of handing a DLC container to the vehicle.
enum class DlcVerdict {
    kInstalled,
    kMalformatted,
    kUnsupportedVersion,
    /// Not this vehicle's, not its current generation, or not its latest fresh challenge.
    kVerificationMismatch,
    kInvalidMac,
    /// The training counter cannot go higher.
    kPreconditionNotMet,
    kPersistFailed,
};

const char* DlcVerdictName(DlcVerdict verdict);

/// The simulated key-management system: answers from its state, verifies
/// and installs containers, and writes every change to the state directory
/// before it takes effect. Thread-safe.
class Vehicle {
public:
    using Clock = std::chrono::steady_clock;
    using Challenge = std::array<std::uint8_t, 16>;

    static constexpr std::uint16_t kBaseCertificateTypeId = 11;
    static constexpr std::uint16_t kRootCertificateTypeId = 13;
    /// A freshly installed Base certificate is valid this long.
    static constexpr auto kBaseCertificateLifetime = std::chrono::hours(24 * 365 * 3);

    Vehicle(std::string directory, VehicleState state, std::chrono::seconds challengeLifetime,
            std::function<Clock::time_point()> now = Clock::now);

    /// The identity hash over `challenge`; the challenge becomes the one a
    /// container must answer.
    std::vector<std::uint8_t> IdentityHash(const Challenge& challenge);
    std::vector<std::uint8_t> PssHash() const;
    std::uint16_t TrainingCounter() const;
    std::string Vin() const;
    /// The certificate of type id 11 (Base) or 13 (root), DER or PEM as the
    /// state says; nothing for other ids.
    std::optional<std::vector<std::uint8_t>> Certificate(std::uint16_t typeId) const;
    /// A UDS request: ReadDataByIdentifier 0xF187 gives the part number
    /// (response data: the identifier, then the text); nothing for others.
    std::optional<std::vector<std::uint8_t>> HandleUds(std::uint8_t sid,
                                                       const std::vector<std::uint8_t>& data) const;

    /// Verifies the container and installs it. `failPersist` makes the
    /// state write fail as a full disk would. `detail` says what was wrong.
    DlcVerdict HandleDlc(const std::vector<std::uint8_t>& container, bool failPersist,
                         std::string& detail);

    VehicleState State() const;

private:
    struct PendingChallenge {
        std::vector<std::uint8_t> bytes;
        Clock::time_point issuedAt;
    };

    DlcVerdict Verify(const std::vector<std::uint8_t>& container, std::string& detail) const;

    const std::string directory_;
    const std::chrono::seconds challengeLifetime_;
    std::function<Clock::time_point()> now_;
    mutable std::mutex mutex_;
    VehicleState state_;
    std::optional<PendingChallenge> pending_;
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_VEHICLE_HPP
