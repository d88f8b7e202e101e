#ifndef VEHICLE_SIM_GENERIC_UDS_IMPL_HPP
#define VEHICLE_SIM_GENERIC_UDS_IMPL_HPP

#include "ac/dm/genericuds/genericuds_skeleton.hpp"
#include "vehicle_sim/fail_points.hpp"
#include "vehicle_sim/vehicle.hpp"

namespace vehicle_sim {

/// The diagnostic manager's generic UDS service; knows the part number only.
class GenericUdsImpl : public ac::dm::genericuds::skeleton::GenericUDSServiceSkeleton {
public:
    GenericUdsImpl(Vehicle& vehicle, FailPoints& failPoints);
    ~GenericUdsImpl() override;

    ac::dm::genericuds::HandleMessageOutput HandleMessage(
        std::uint8_t sid, const std::vector<std::uint8_t>& requestData) override;

private:
    Vehicle& vehicle_;
    FailPoints& failPoints_;
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_GENERIC_UDS_IMPL_HPP
