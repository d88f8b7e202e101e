#ifndef TEE_GENERIC_UDS_SERVICES_HPP
#define TEE_GENERIC_UDS_SERVICES_HPP

#include <cstdint>
#include <string>

#include "ac/dm/genericuds/genericuds_proxy.hpp"
#include "tee/generic_uds_services_if.hpp"
#include "tee/service_binding.hpp"
#include "tee/service_tracker.hpp"

namespace qervo::tee {

/// Where the ECU's tesmo identification string is stored.
inline constexpr const char* TESMO_ID_PATH = "/data/target/yelt_ids/tesmo_string.bin";

/// TESMO_ID_PATH; on a development host KELVANE_TESMO_ID_PATH, when set, instead.
std::string TesmoIdPath();

/// The ECU identity values: a fixed diagnostic id, the tesmo id string from
/// its file, and the part number read over UDS from the diagnostic manager.
class GenericUdsServices : public GenericUdsServicesIf {
public:
    using Proxy = ac::dm::genericuds::proxy::GenericUDSServiceProxy;

    static constexpr const char* kDiagnosticId = "C003";

    explicit GenericUdsServices(std::string tesmoIdPath = TesmoIdPath(),
                                ServiceBinding<Proxy> binding =
                                    ServiceBinding<Proxy>::AraCom(ac::dm::genericuds::kInstance));
    /// Stops the search; its handler is not running once this returns.
    ~GenericUdsServices() override;
    GenericUdsServices(const GenericUdsServices&) = delete;
    GenericUdsServices& operator=(const GenericUdsServices&) = delete;

    void Initialize() override;
    bool IsReady() const override;
    /// Reads data identifier 0xF187 (spare-part number) over UDS.
    std::uint8_t ecu_get_part_number(std::string& partNumber) override;
    std::uint8_t ecu_get_diagnostic_id(std::string& diagnosticId) override;
    /// The identity file's bytes, whole and unchanged.
    std::uint8_t ecu_get_tesmo_id_string(std::string& tesmoIdString) override;

private:
    std::string tesmoIdPath_;
    ServiceTracker<Proxy> service_;
};

}  // namespace qervo::tee

#endif  // TEE_GENERIC_UDS_SERVICES_HPP
