#ifndef TEE_ZELK_ONLINE_UPDATE_CLIENT_HPP
#define TEE_ZELK_ONLINE_UPDATE_CLIENT_HPP

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ac/com/runtime/component_singleton.hpp"
#include "tee/diagnostic_services_if.hpp"
#include "tee/generic_uds_services_if.hpp"
#include "tee/typeid_access_service_if.hpp"
#include "tee/zelk_online_update_api.hpp"

namespace qervo::tee {

/// The facade over the three service accessors. Holds no lock: it is called
/// from one thread, while the accessors' readiness changes on ara::com threads.
class ZELKOnlineUpdateClient : public ZELKOnlineUpdateAPI {
public:
    /// What the client makes its accessors with and how it sleeps; tests
    /// substitute fakes and a sleep that only records.
    struct Dependencies {
        std::function<std::shared_ptr<DiagnosticServicesIf>()> makeDiagnosticServices;
        std::function<std::shared_ptr<TypeidAccessServiceIf>()> makeTypeidAccessService;
        std::function<std::shared_ptr<GenericUdsServicesIf>()> makeGenericUdsServices;
        std::function<void(std::chrono::seconds)> sleep;

        /// The real accessors, the identity file at `tesmoIdPath`, a monotonic sleep.
        static Dependencies Default(std::string tesmoIdPath);
        static Dependencies Default();
    };

    /// The process-wide client, made on first use; init() runs on every call.
    static std::shared_ptr<ZELKOnlineUpdateAPI> get_instance();

    ZELKOnlineUpdateClient();
    explicit ZELKOnlineUpdateClient(Dependencies dependencies);
    /// Releases the accessors (generic UDS, Type-ID, diagnostic services), then the runtime.
    ~ZELKOnlineUpdateClient() override;
    ZELKOnlineUpdateClient(const ZELKOnlineUpdateClient&) = delete;
    ZELKOnlineUpdateClient& operator=(const ZELKOnlineUpdateClient&) = delete;

    /// Makes fresh accessors and starts their service discovery; does not wait.
    void init();

    ClientError zelk_handle_dlc(std::vector<std::uint8_t> dlc) override;
    ClientError zelk_get_certificate(std::string typeId, std::string& certificate) override;
    ClientError zelk_get_identity_hash(std::vector<std::uint8_t>& identityHash,
                                       const std::vector<std::uint8_t>& challenge) override;
    ClientError zelk_get_pss_hash(std::vector<std::uint8_t>& pssHash) override;
    ClientError zelk_get_training_counter(std::uint16_t& trainingCounter) override;
    ClientError zelk_get_zelk_vin(std::vector<std::uint8_t>& vin) override;
    /// Always the fixed "V04007000TB"; no service is asked.
    ClientError ecu_get_part_number(std::string& partNumber) override;
    ClientError ecu_get_diagnostic_id(std::string& diagnosticId) override;
    ClientError ecu_get_tesmo_id_string(std::string& tesmoIdString) override;

    // Access status (access_status.hpp) to client error, one table per accessor.
    ClientError diagServicesErrorToClientError(std::uint8_t status) const;
    ClientError typeidAccessServicesErrorToClientError(std::uint8_t status) const;
    ClientError getericUdsAccessErrorToClientError(std::uint8_t status) const;

    static constexpr const char* kPartNumber = "V04007000TB";
    static constexpr int kCertificateWaitSeconds = 5;

private:
    bool DiagnosticServicesReady(const char* operation) const;

    ac::com::runtime::Component_singleton component_;
    std::shared_ptr<DiagnosticServicesIf> diagnosticServices_;
    std::shared_ptr<TypeidAccessServiceIf> typeidAccessService_;
    std::shared_ptr<GenericUdsServicesIf> genericUdsServices_;
    Dependencies dependencies_;
};

}  // namespace qervo::tee

#endif  // TEE_ZELK_ONLINE_UPDATE_CLIENT_HPP
