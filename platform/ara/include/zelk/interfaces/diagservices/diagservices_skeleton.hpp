#ifndef ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_SKELETON_HPP
#define ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_SKELETON_HPP

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "ara/core/instance_specifier.hpp"
#include "zelk/interfaces/diagservices/diagservices_common.hpp"

namespace ara::com::internal {
class SkeletonBinding;
}

namespace zelk::interfaces::diagservices {

/// The exception a skeleton throws to answer with `errc`
/// (what() is e.g. "DiagServices::ZELK_ERROR_BUSY::23").
ara::com::ApplicationErrorException MakeApplicationError(DiagServicesErrc errc);

}  // namespace zelk::interfaces::diagservices

namespace zelk::interfaces::diagservices::skeleton {

/// Server side of DiagServices: derive, implement the methods and call
/// OfferService(). A method returns its output or throws the
/// ara::com::ApplicationErrorException made by MakeApplicationError(); any
/// other exception answers the call with a generic D-Bus failure. Methods run
/// one at a time on the binding's thread. Call StopOfferService() in the
/// derived destructor so that no call reaches a half-destroyed object.
class DiagServicesSkeleton {
public:
    using Hash = std::array<std::uint8_t, 16>;

    explicit DiagServicesSkeleton(
        const ara::core::InstanceSpecifier& instance = ara::core::InstanceSpecifier(kInstance));
    virtual ~DiagServicesSkeleton();
    DiagServicesSkeleton(const DiagServicesSkeleton&) = delete;
    DiagServicesSkeleton& operator=(const DiagServicesSkeleton&) = delete;

    /// Takes the instance's bus name; throws ara::com::ComException when another owns it.
    void OfferService();
    /// Releases the bus name; no method is running when it returns.
    void StopOfferService();

    virtual void CheckVerificationHash(const Hash& verificationHash) = 0;
    virtual DebugOutput Debug(const std::vector<std::uint8_t>& request) = 0;
    virtual GetIdentityHashOutput GetIdentityHash(const Hash& challenge) = 0;
    virtual GetKeyListOutput GetKeyList() = 0;
    virtual GetMissingKeyListOutput GetMissingKeyList() = 0;
    virtual GetPssHashOutput GetPssHash() = 0;
    virtual GetStatusOutput GetStatus() = 0;
    virtual GetTrainingCounterOutput GetTrainingCounter() = 0;
    virtual GetZelkVINOutput GetZelkVIN() = 0;
    virtual void HandleDlc(const std::vector<std::uint8_t>& dlc) = 0;

private:
    std::unique_ptr<ara::com::internal::SkeletonBinding> binding_;
};

}  // namespace zelk::interfaces::diagservices::skeleton

#endif  // ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_SKELETON_HPP
