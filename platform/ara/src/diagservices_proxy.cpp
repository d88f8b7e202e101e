#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"

#include <tuple>
#include <utility>

#include "byte_arrays.hpp"
#include "idl/diag_services_proxy.h"
#include "remote_service.hpp"
#include "runtime.hpp"
#include "service_domains.hpp"

namespace zelk::interfaces::diagservices::proxy {

using ara::com::internal::Bytes;
using ara::com::internal::ReplyArray;
using ara::core::MakeReadyFuture;
using Glue = DiagServices_proxy;

class DiagServicesProxy::Remote : public ara::com::internal::RemoteService<Glue> {
public:
    using RemoteService::RemoteService;
};

ara::com::FindServiceHandle DiagServicesProxy::StartFindService(
    ara::com::FindServiceHandler<HandleType> handler,
    const ara::core::InstanceSpecifier& instance) {
    auto runtime = ara::com::internal::Runtime::Instance();
    return runtime->StartFind(ara::com::internal::Runtime::BusNameOf(instance),
                              ara::com::internal::kDiagServicesPath, std::move(handler));
}

void DiagServicesProxy::StopFindService(ara::com::FindServiceHandle handle) {
    ara::com::internal::Runtime::StopFindService(handle);
}

// On this host a call has completed when its future is returned, and get()
// throws an ara::com::ComException when the call did not get through.
// Does not touch the bus; the first call connects.
DiagServicesProxy::DiagServicesProxy(const HandleType& handle)
    : handle_(handle)
    , remote_(std::make_unique<Remote>(handle, ara::com::internal::DiagServicesDomain())) {}

DiagServicesProxy::~DiagServicesProxy() = default;

ara::core::Future<void> DiagServicesProxy::CallCheckVerificationHash(const Hash& verificationHash) {
    return MakeReadyFuture([&] {
        remote_->Invoke([&](Glue& glue) { glue.CheckVerificationHash(Bytes(verificationHash)); });
    });
}

ara::core::Future<DebugOutput> DiagServicesProxy::CallDebug(
    const std::vector<std::uint8_t>& request) {
    return MakeReadyFuture([&] {
        return DebugOutput{remote_->Invoke([&](Glue& glue) { return glue.Debug(request); })};
    });
}

ara::core::Future<GetIdentityHashOutput> DiagServicesProxy::CallGetIdentityHash(
    const Hash& challenge) {
    return MakeReadyFuture([&] {
        const auto hash =
            remote_->Invoke([&](Glue& glue) { return glue.GetIdentityHash(Bytes(challenge)); });
        return GetIdentityHashOutput{ReplyArray<16>(hash, "identity hash")};
    });
}

ara::core::Future<GetKeyListOutput> DiagServicesProxy::CallGetKeyList() {
    return MakeReadyFuture([&] {
        return GetKeyListOutput{remote_->Invoke([](Glue& glue) { return glue.GetKeyList(); })};
    });
}

ara::core::Future<GetMissingKeyListOutput> DiagServicesProxy::CallGetMissingKeyList() {
    return MakeReadyFuture([&] {
        return GetMissingKeyListOutput{
            remote_->Invoke([](Glue& glue) { return glue.GetMissingKeyList(); })};
    });
}

ara::core::Future<GetPssHashOutput> DiagServicesProxy::CallGetPssHash() {
    return MakeReadyFuture([&] {
        const auto hash = remote_->Invoke([](Glue& glue) { return glue.GetPssHash(); });
        return GetPssHashOutput{ReplyArray<16>(hash, "PSS hash")};
    });
}

ara::core::Future<GetStatusOutput> DiagServicesProxy::CallGetStatus() {
    return MakeReadyFuture([&] {
        const auto [state, trainingCounter] =
            remote_->Invoke([](Glue& glue) { return glue.GetStatus(); });
        return GetStatusOutput{state, trainingCounter};
    });
}

ara::core::Future<GetTrainingCounterOutput> DiagServicesProxy::CallGetTrainingCounter() {
    return MakeReadyFuture([&] {
        return GetTrainingCounterOutput{
            remote_->Invoke([](Glue& glue) { return glue.GetTrainingCounter(); })};
    });
}

ara::core::Future<GetZelkVINOutput> DiagServicesProxy::CallGetZelkVIN() {
    return MakeReadyFuture([&] {
        const auto vin = remote_->Invoke([](Glue& glue) { return glue.GetZelkVIN(); });
        return GetZelkVINOutput{ReplyArray<17>(vin, "VIN")};
    });
}

ara::core::Future<void> DiagServicesProxy::CallHandleDlc(const std::vector<std::uint8_t>& dlc) {
    return MakeReadyFuture([&] { remote_->Invoke([&](Glue& glue) { glue.HandleDlc(dlc); }); });
}

}  // namespace zelk::interfaces::diagservices::proxy
