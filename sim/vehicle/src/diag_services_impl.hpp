#ifndef VEHICLE_SIM_DIAG_SERVICES_IMPL_HPP
#define VEHICLE_SIM_DIAG_SERVICES_IMPL_HPP

#include "vehicle_sim/fail_points.hpp"
#include "vehicle_sim/vehicle.hpp"
#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"

namespace vehicle_sim {

/// The key-management system's diagnostic service, answered by the Vehicle.
class DiagServicesImpl : public zelk::interfaces::diagservices::skeleton::DiagServicesSkeleton {
public:
    DiagServicesImpl(Vehicle& vehicle, FailPoints& failPoints);
    ~DiagServicesImpl() override;

    void CheckVerificationHash(const Hash& verificationHash) override;
    zelk::interfaces::diagservices::DebugOutput Debug(
        const std::vector<std::uint8_t>& request) override;
    zelk::interfaces::diagservices::GetIdentityHashOutput GetIdentityHash(
        const Hash& challenge) override;
    zelk::interfaces::diagservices::GetKeyListOutput GetKeyList() override;
    zelk::interfaces::diagservices::GetMissingKeyListOutput GetMissingKeyList() override;
    zelk::interfaces::diagservices::GetPssHashOutput GetPssHash() override;
    zelk::interfaces::diagservices::GetStatusOutput GetStatus() override;
    zelk::interfaces::diagservices::GetTrainingCounterOutput GetTrainingCounter() override;
    zelk::interfaces::diagservices::GetZelkVINOutput GetZelkVIN() override;
    void HandleDlc(const std::vector<std::uint8_t>& dlc) override;

private:
    /// Raises the error of an armed fail point of `method`.
    void FailIfArmed(const char* method);

    Vehicle& vehicle_;
    FailPoints& failPoints_;
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_DIAG_SERVICES_IMPL_HPP
