#ifndef ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_SKELETON_HPP
#define ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_SKELETON_HPP

#include <cstdint>
#include <memory>

#include "ara/core/instance_specifier.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_common.hpp"

namespace ara::com::internal {
class SkeletonBinding;
}

namespace zelk::interfaces::typeidaccess {

/// The exception a skeleton throws to answer with `errc`
/// (what() is e.g. "TypeIdAccess::ZELK_ERROR_INVALID_TYPEID::20").
ara::com::ApplicationErrorException MakeApplicationError(TypeIdAccessErrc errc);

}  // namespace zelk::interfaces::typeidaccess

namespace zelk::interfaces::typeidaccess::skeleton {

/// Server side of TypeIdAccess; used like DiagServicesSkeleton (derive,
/// implement, OfferService(), StopOfferService() in the derived destructor).
class TypeIdAccessSkeleton {
public:
    explicit TypeIdAccessSkeleton(
        const ara::core::InstanceSpecifier& instance = ara::core::InstanceSpecifier(kInstance));
    virtual ~TypeIdAccessSkeleton();
    TypeIdAccessSkeleton(const TypeIdAccessSkeleton&) = delete;
    TypeIdAccessSkeleton& operator=(const TypeIdAccessSkeleton&) = delete;

    /// Takes the instance's bus name; throws ara::com::ComException when another owns it.
    void OfferService();
    /// Releases the bus name; no method is running when it returns.
    void StopOfferService();

    virtual GetCertificateOutput GetCertificate(std::uint16_t typeId) = 0;
    virtual GetDataOutput GetData(std::uint16_t typeId) = 0;
    virtual GetKeyOutput GetKey(std::uint16_t typeId) = 0;
    virtual GetMetaDataOutput GetMetaData(std::uint16_t typeId) = 0;
    virtual void IsTypeIdReady(std::uint16_t typeId) = 0;

private:
    std::unique_ptr<ara::com::internal::SkeletonBinding> binding_;
};

}  // namespace zelk::interfaces::typeidaccess::skeleton

#endif  // ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_SKELETON_HPP
