#include "ac/dm/genericuds/genericuds_proxy.hpp"

#include <utility>

#include "idl/generic_uds_service_proxy.h"
#include "remote_service.hpp"
#include "runtime.hpp"
#include "service_domains.hpp"

namespace ac::dm::genericuds::proxy {

using ara::core::MakeReadyFuture;
using Glue = GenericUDSService_proxy;

class GenericUDSServiceProxy::Remote : public ara::com::internal::RemoteService<Glue> {
public:
    using RemoteService::RemoteService;
};

ara::com::FindServiceHandle GenericUDSServiceProxy::StartFindService(
    ara::com::FindServiceHandler<HandleType> handler,
    const ara::core::InstanceSpecifier& instance) {
    auto runtime = ara::com::internal::Runtime::Instance();
    return runtime->StartFind(ara::com::internal::Runtime::BusNameOf(instance),
                              ara::com::internal::kGenericUdsServicePath, std::move(handler));
}

void GenericUDSServiceProxy::StopFindService(ara::com::FindServiceHandle handle) {
    ara::com::internal::Runtime::StopFindService(handle);
}

// Does not touch the bus; the first call connects.
GenericUDSServiceProxy::GenericUDSServiceProxy(const HandleType& handle)
    : handle_(handle)
    , remote_(std::make_unique<Remote>(handle, ara::com::internal::GenericUdsServiceDomain())) {}

GenericUDSServiceProxy::~GenericUDSServiceProxy() = default;

ara::core::Future<HandleMessageOutput> GenericUDSServiceProxy::CallHandleMessage(
    std::uint8_t sid, const std::vector<std::uint8_t>& requestData) {
    return MakeReadyFuture([&] {
        return HandleMessageOutput{
            remote_->Invoke([&](Glue& glue) { return glue.HandleMessage(sid, requestData); })};
    });
}

}  // namespace ac::dm::genericuds::proxy
