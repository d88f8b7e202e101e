#include "skeleton_binding.hpp"

#include <utility>

namespace ara::com::internal {

SkeletonBinding::SkeletonBinding(const ara::core::InstanceSpecifier& instance,
                                 Runtime::ObjectFactory factory)
    : busName_(Runtime::BusNameOf(instance)), factory_(std::move(factory)) {}

SkeletonBinding::~SkeletonBinding() {
    StopOffer();
}

void SkeletonBinding::Offer() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (offer_) {
        return;
    }
    if (!runtime_) {
        runtime_ = Runtime::Instance();
    }
    offer_ = runtime_->Offer(busName_, factory_);
}

void SkeletonBinding::StopOffer() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!offer_) {
        return;
    }
    runtime_->Withdraw(*offer_);
    offer_.reset();
}

}  // namespace ara::com::internal
