#ifndef TEE_DIAGNOSTIC_SERVICES_IF_HPP
#define TEE_DIAGNOSTIC_SERVICES_IF_HPP

#include <cstdint>
#include <vector>

namespace qervo::tee {

/// The key-management system's diagnostic service as plain calls returning
/// an access status (see access_status.hpp).
class DiagnosticServicesIf {
public:
    virtual ~DiagnosticServicesIf() = default;

    /// Starts looking for the service and returns at once.
    virtual void Initialize() = 0;
    /// True while the service is known to be there.
    virtual bool IsReady() const = 0;
    virtual std::uint8_t zelk_handle_dlc(const std::vector<std::uint8_t>& dlc) = 0;
    virtual std::uint8_t zelk_get_identity_hash(std::vector<std::uint8_t>& identityHash,
                                                const std::vector<std::uint8_t>& challenge) = 0;
    virtual std::uint8_t zelk_get_pss_hash(std::vector<std::uint8_t>& pssHash) = 0;
    virtual std::uint8_t zelk_get_training_counter(std::uint16_t& trainingCounter) = 0;
    virtual std::uint8_t zelk_get_zelk_vin(std::vector<std::uint8_t>& vin) = 0;
};

}  // namespace qervo::tee

#endif  // TEE_DIAGNOSTIC_SERVICES_IF_HPP
