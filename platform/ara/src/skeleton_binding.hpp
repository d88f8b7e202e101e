#ifndef ARA_SRC_SKELETON_BINDING_HPP
#define ARA_SRC_SKELETON_BINDING_HPP

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ara/core/instance_specifier.hpp"
#include "runtime.hpp"

namespace ara::com::internal {

/// Offers one skeleton's object under its instance's bus name.
class SkeletonBinding {
public:
    SkeletonBinding(const ara::core::InstanceSpecifier& instance, Runtime::ObjectFactory factory);
    ~SkeletonBinding();
    SkeletonBinding(const SkeletonBinding&) = delete;
    SkeletonBinding& operator=(const SkeletonBinding&) = delete;

    /// Idempotent; throws ara::com::ComException when the name is owned by another.
    void Offer();
    /// Idempotent; no method of the skeleton is running when it returns.
    void StopOffer();

private:
    std::string busName_;
    Runtime::ObjectFactory factory_;
    std::shared_ptr<Runtime> runtime_;
    std::mutex mutex_;
    std::optional<std::uint64_t> offer_;
};

}  // namespace ara::com::internal

#endif  // ARA_SRC_SKELETON_BINDING_HPP
