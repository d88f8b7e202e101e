#ifndef VEHICLE_SIM_TYPE_ID_ACCESS_IMPL_HPP
#define VEHICLE_SIM_TYPE_ID_ACCESS_IMPL_HPP

#include "vehicle_sim/fail_points.hpp"
#include "vehicle_sim/vehicle.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_skeleton.hpp"

namespace vehicle_sim {

/// The Type-ID access service: the Base (11) and root (13) certificates.
class TypeIdAccessImpl : public zelk::interfaces::typeidaccess::skeleton::TypeIdAccessSkeleton {
public:
    TypeIdAccessImpl(Vehicle& vehicle, FailPoints& failPoints);
    ~TypeIdAccessImpl() override;

    zelk::interfaces::typeidaccess::GetCertificateOutput GetCertificate(
        std::uint16_t typeId) override;
    zelk::interfaces::typeidaccess::GetDataOutput GetData(std::uint16_t typeId) override;
    zelk::interfaces::typeidaccess::GetKeyOutput GetKey(std::uint16_t typeId) override;
    zelk::interfaces::typeidaccess::GetMetaDataOutput GetMetaData(std::uint16_t typeId) override;
    void IsTypeIdReady(std::uint16_t typeId) override;

private:
    /// The certificate of `typeId`, or ZELK_ERROR_INVALID_TYPEID raised.
    std::vector<std::uint8_t> CertificateOrThrow(std::uint16_t typeId) const;

    Vehicle& vehicle_;
    FailPoints& failPoints_;
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_TYPE_ID_ACCESS_IMPL_HPP
