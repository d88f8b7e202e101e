#ifndef AC_DM_GENERICUDS_GENERICUDS_SKELETON_HPP
#define AC_DM_GENERICUDS_GENERICUDS_SKELETON_HPP

#include <cstdint>
#include <memory>
#include <vector>

#include "ac/dm/genericuds/genericuds_common.hpp"
#include "ara/core/instance_specifier.hpp"

namespace ara::com::internal {
class SkeletonBinding;
}

namespace ac::dm::genericuds {

/// The exception a skeleton throws to answer with `errc`
/// (what() is "GenericUDSService::UDSServiceFailed::2").
ara::com::ApplicationErrorException MakeApplicationError(GenericUDSServiceErrc errc);

}  // namespace ac::dm::genericuds

namespace ac::dm::genericuds::skeleton {

/// Server side of GenericUDSService; used like DiagServicesSkeleton (derive,
/// implement, OfferService(), StopOfferService() in the derived destructor).
class GenericUDSServiceSkeleton {
public:
    explicit GenericUDSServiceSkeleton(
        const ara::core::InstanceSpecifier& instance = ara::core::InstanceSpecifier(kInstance));
    virtual ~GenericUDSServiceSkeleton();
    GenericUDSServiceSkeleton(const GenericUDSServiceSkeleton&) = delete;
    GenericUDSServiceSkeleton& operator=(const GenericUDSServiceSkeleton&) = delete;

    /// Takes the instance's bus name; throws ara::com::ComException when another owns it.
    void OfferService();
    /// Releases the bus name; no method is running when it returns.
    void StopOfferService();

    virtual HandleMessageOutput HandleMessage(std::uint8_t sid,
                                              const std::vector<std::uint8_t>& requestData) = 0;

private:
    std::unique_ptr<ara::com::internal::SkeletonBinding> binding_;
};

}  // namespace ac::dm::genericuds::skeleton

#endif  // AC_DM_GENERICUDS_GENERICUDS_SKELETON_HPP
