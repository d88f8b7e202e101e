#ifndef TEE_GENERIC_UDS_SERVICES_IF_HPP
#define TEE_GENERIC_UDS_SERVICES_IF_HPP

#include <cstdint>
#include <string>

namespace qervo::tee {

/// The ECU identity values as plain calls returning an access status (see
/// access_status.hpp).
class GenericUdsServicesIf {
public:
    virtual ~GenericUdsServicesIf() = default;

    /// Starts looking for the generic UDS service and returns at once.
    virtual void Initialize() = 0;
    /// True while the generic UDS service is known to be there.
    virtual bool IsReady() const = 0;
    virtual std::uint8_t ecu_get_part_number(std::string& partNumber) = 0;
    virtual std::uint8_t ecu_get_diagnostic_id(std::string& diagnosticId) = 0;
    virtual std::uint8_t ecu_get_tesmo_id_string(std::string& tesmoIdString) = 0;
};

}  // namespace qervo::tee

#endif  // TEE_GENERIC_UDS_SERVICES_IF_HPP
