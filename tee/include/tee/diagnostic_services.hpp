#ifndef TEE_DIAGNOSTIC_SERVICES_HPP
#define TEE_DIAGNOSTIC_SERVICES_HPP

#include <cstdint>
#include <vector>

#include "tee/diagnostic_services_if.hpp"
#include "tee/service_binding.hpp"
#include "tee/service_tracker.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"

namespace qervo::tee {

/// Finds the diagnostic service and calls it. Calls wait for the answer
/// without a time-out; an application error's code is returned as the
/// status and leaves the output as it was. Other failures of the call
/// (ara::com::ComException) propagate.
class DiagnosticServices : public DiagnosticServicesIf {
public:
    using Proxy = zelk::interfaces::diagservices::proxy::DiagServicesProxy;

    explicit DiagnosticServices(ServiceBinding<Proxy> binding = ServiceBinding<Proxy>::AraCom(
                                    zelk::interfaces::diagservices::kInstance));
    /// Stops the search; its handler is not running once this returns.
    ~DiagnosticServices() override;
    DiagnosticServices(const DiagnosticServices&) = delete;
    DiagnosticServices& operator=(const DiagnosticServices&) = delete;

    void Initialize() override;
    bool IsReady() const override;
    std::uint8_t zelk_handle_dlc(const std::vector<std::uint8_t>& dlc) override;
    std::uint8_t zelk_get_identity_hash(std::vector<std::uint8_t>& identityHash,
                                        const std::vector<std::uint8_t>& challenge) override;
    std::uint8_t zelk_get_pss_hash(std::vector<std::uint8_t>& pssHash) override;
    std::uint8_t zelk_get_training_counter(std::uint16_t& trainingCounter) override;
    std::uint8_t zelk_get_zelk_vin(std::vector<std::uint8_t>& vin) override;

private:
    ServiceTracker<Proxy> service_;
};

}  // namespace qervo::tee

#endif  // TEE_DIAGNOSTIC_SERVICES_HPP
