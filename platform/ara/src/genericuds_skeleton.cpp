#include "ac/dm/genericuds/genericuds_skeleton.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include "error_domain.hpp"
#include "idl/generic_uds_service_adaptor.h"
#include "service_domains.hpp"
#include "skeleton_binding.hpp"

namespace ac::dm::genericuds::skeleton {
namespace {

using ara::com::internal::GenericUdsServiceDomain;
using ara::com::internal::Serve;

/// The generated server glue, answering from the skeleton.
class Adaptor final : public sdbus::AdaptorInterfaces<GenericUDSService_adaptor> {
public:
    Adaptor(sdbus::IConnection& connection, GenericUDSServiceSkeleton& skeleton)
        : AdaptorInterfaces(connection, ara::com::internal::kGenericUdsServicePath)
        , skeleton_(skeleton) {
        registerAdaptor();
    }
    ~Adaptor() { unregisterAdaptor(); }

private:
    std::vector<uint8_t> HandleMessage(const uint8_t& sid,
                                       const std::vector<uint8_t>& requestData) override {
        return Serve(GenericUdsServiceDomain(),
                     [&] { return skeleton_.HandleMessage(sid, requestData).responseData; });
    }

    GenericUDSServiceSkeleton& skeleton_;
};

}  // namespace

GenericUDSServiceSkeleton::GenericUDSServiceSkeleton(const ara::core::InstanceSpecifier& instance)
    : binding_(std::make_unique<ara::com::internal::SkeletonBinding>(
          instance, [this](sdbus::IConnection& connection) -> std::shared_ptr<void> {
              return std::make_shared<Adaptor>(connection, *this);
          })) {}

GenericUDSServiceSkeleton::~GenericUDSServiceSkeleton() = default;

void GenericUDSServiceSkeleton::OfferService() {
    binding_->Offer();
}

void GenericUDSServiceSkeleton::StopOfferService() {
    binding_->StopOffer();
}

}  // namespace ac::dm::genericuds::skeleton
