#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <tuple>
#include <utility>

#include "byte_arrays.hpp"
#include "error_domain.hpp"
#include "idl/diag_services_adaptor.h"
#include "service_domains.hpp"
#include "skeleton_binding.hpp"

namespace zelk::interfaces::diagservices::skeleton {
namespace {

using ara::com::internal::Bytes;
using ara::com::internal::DiagServicesDomain;
using ara::com::internal::RequestArray;
using ara::com::internal::Serve;

/// The generated server glue, answering from the skeleton.
class Adaptor final : public sdbus::AdaptorInterfaces<DiagServices_adaptor> {
public:
    Adaptor(sdbus::IConnection& connection, DiagServicesSkeleton& skeleton)
        : AdaptorInterfaces(connection, ara::com::internal::kDiagServicesPath)
        , skeleton_(skeleton) {
        registerAdaptor();
    }
    ~Adaptor() { unregisterAdaptor(); }

private:
    void CheckVerificationHash(const std::vector<uint8_t>& verificationHash) override {
        Serve(DiagServicesDomain(), [&] {
            skeleton_.CheckVerificationHash(RequestArray<16>(verificationHash, "verificationHash"));
        });
    }
    std::vector<uint8_t> Debug(const std::vector<uint8_t>& request) override {
        return Serve(DiagServicesDomain(), [&] { return skeleton_.Debug(request).response; });
    }
    std::vector<uint8_t> GetIdentityHash(const std::vector<uint8_t>& challenge) override {
        return Serve(DiagServicesDomain(), [&] {
            return Bytes(
                skeleton_.GetIdentityHash(RequestArray<16>(challenge, "challenge")).identityHash);
        });
    }
    std::vector<uint16_t> GetKeyList() override {
        return Serve(DiagServicesDomain(), [&] { return skeleton_.GetKeyList().typeIds; });
    }
    std::vector<uint16_t> GetMissingKeyList() override {
        return Serve(DiagServicesDomain(), [&] { return skeleton_.GetMissingKeyList().typeIds; });
    }
    std::vector<uint8_t> GetPssHash() override {
        return Serve(DiagServicesDomain(), [&] { return Bytes(skeleton_.GetPssHash().pssHash); });
    }
    std::tuple<uint8_t, uint16_t> GetStatus() override {
        return Serve(DiagServicesDomain(), [&] {
            const auto status = skeleton_.GetStatus();
            return std::make_tuple(status.state, status.trainingCounter);
        });
    }
    uint16_t GetTrainingCounter() override {
        return Serve(DiagServicesDomain(),
                     [&] { return skeleton_.GetTrainingCounter().trainingCounter; });
    }
    std::vector<uint8_t> GetZelkVIN() override {
        return Serve(DiagServicesDomain(), [&] { return Bytes(skeleton_.GetZelkVIN().vin); });
    }
    void HandleDlc(const std::vector<uint8_t>& dlc) override {
        Serve(DiagServicesDomain(), [&] { skeleton_.HandleDlc(dlc); });
    }

    DiagServicesSkeleton& skeleton_;
};

}  // namespace

DiagServicesSkeleton::DiagServicesSkeleton(const ara::core::InstanceSpecifier& instance)
    : binding_(std::make_unique<ara::com::internal::SkeletonBinding>(
          instance, [this](sdbus::IConnection& connection) -> std::shared_ptr<void> {
              return std::make_shared<Adaptor>(connection, *this);
          })) {}

DiagServicesSkeleton::~DiagServicesSkeleton() = default;

void DiagServicesSkeleton::OfferService() {
    binding_->Offer();
}

void DiagServicesSkeleton::StopOfferService() {
    binding_->StopOffer();
}

}  // namespace zelk::interfaces::diagservices::skeleton
