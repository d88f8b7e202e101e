#include "zelk/interfaces/typeidaccess/typeidaccess_skeleton.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <tuple>
#include <vector>

#include "error_domain.hpp"
#include "idl/type_id_access_adaptor.h"
#include "service_domains.hpp"
#include "skeleton_binding.hpp"

namespace zelk::interfaces::typeidaccess::skeleton {
namespace {

using ara::com::internal::Serve;
using ara::com::internal::TypeIdAccessDomain;

/// The generated server glue, answering from the skeleton.
class Adaptor final : public sdbus::AdaptorInterfaces<TypeIdAccess_adaptor> {
public:
    Adaptor(sdbus::IConnection& connection, TypeIdAccessSkeleton& skeleton)
        : AdaptorInterfaces(connection, ara::com::internal::kTypeIdAccessPath)
        , skeleton_(skeleton) {
        registerAdaptor();
    }
    ~Adaptor() { unregisterAdaptor(); }

private:
    std::vector<uint8_t> GetCertificate(const uint16_t& typeId) override {
        return Serve(TypeIdAccessDomain(),
                     [&] { return skeleton_.GetCertificate(typeId).certificate; });
    }
    std::vector<uint8_t> GetData(const uint16_t& typeId) override {
        return Serve(TypeIdAccessDomain(), [&] { return skeleton_.GetData(typeId).data; });
    }
    std::vector<uint8_t> GetKey(const uint16_t& typeId) override {
        return Serve(TypeIdAccessDomain(), [&] { return skeleton_.GetKey(typeId).key; });
    }
    std::tuple<uint16_t, uint32_t> GetMetaData(const uint16_t& typeId) override {
        return Serve(TypeIdAccessDomain(), [&] {
            const auto metaData = skeleton_.GetMetaData(typeId);
            return std::make_tuple(metaData.genus, metaData.length);
        });
    }
    void IsTypeIdReady(const uint16_t& typeId) override {
        Serve(TypeIdAccessDomain(), [&] { skeleton_.IsTypeIdReady(typeId); });
    }

    TypeIdAccessSkeleton& skeleton_;
};

}  // namespace

TypeIdAccessSkeleton::TypeIdAccessSkeleton(const ara::core::InstanceSpecifier& instance)
    : binding_(std::make_unique<ara::com::internal::SkeletonBinding>(
          instance, [this](sdbus::IConnection& connection) -> std::shared_ptr<void> {
              return std::make_shared<Adaptor>(connection, *this);
          })) {}

TypeIdAccessSkeleton::~TypeIdAccessSkeleton() = default;

void TypeIdAccessSkeleton::OfferService() {
    binding_->Offer();
}

void TypeIdAccessSkeleton::StopOfferService() {
    binding_->StopOffer();
}

}  // namespace zelk::interfaces::typeidaccess::skeleton
