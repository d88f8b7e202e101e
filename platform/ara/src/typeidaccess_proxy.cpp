#include "zelk/interfaces/typeidaccess/typeidaccess_proxy.hpp"

#include <tuple>
#include <utility>

#include "idl/type_id_access_proxy.h"
#include "remote_service.hpp"
#include "runtime.hpp"
#include "service_domains.hpp"

namespace zelk::interfaces::typeidaccess::proxy {

using ara::core::MakeReadyFuture;
using Glue = TypeIdAccess_proxy;

class TypeIdAccessProxy::Remote : public ara::com::internal::RemoteService<Glue> {
public:
    using RemoteService::RemoteService;
};

ara::com::FindServiceHandle TypeIdAccessProxy::StartFindService(
    ara::com::FindServiceHandler<HandleType> handler,
    const ara::core::InstanceSpecifier& instance) {
    auto runtime = ara::com::internal::Runtime::Instance();
    return runtime->StartFind(ara::com::internal::Runtime::BusNameOf(instance),
                              ara::com::internal::kTypeIdAccessPath, std::move(handler));
}

void TypeIdAccessProxy::StopFindService(ara::com::FindServiceHandle handle) {
    ara::com::internal::Runtime::StopFindService(handle);
}

// Does not touch the bus; the first call connects.
TypeIdAccessProxy::TypeIdAccessProxy(const HandleType& handle)
    : handle_(handle)
    , remote_(std::make_unique<Remote>(handle, ara::com::internal::TypeIdAccessDomain())) {}

TypeIdAccessProxy::~TypeIdAccessProxy() = default;

ara::core::Future<GetCertificateOutput> TypeIdAccessProxy::CallGetCertificate(
    std::uint16_t typeId) {
    return MakeReadyFuture([&] {
        return GetCertificateOutput{
            remote_->Invoke([&](Glue& glue) { return glue.GetCertificate(typeId); })};
    });
}

ara::core::Future<GetDataOutput> TypeIdAccessProxy::CallGetData(std::uint16_t typeId) {
    return MakeReadyFuture([&] {
        return GetDataOutput{remote_->Invoke([&](Glue& glue) { return glue.GetData(typeId); })};
    });
}

ara::core::Future<GetKeyOutput> TypeIdAccessProxy::CallGetKey(std::uint16_t typeId) {
    return MakeReadyFuture([&] {
        return GetKeyOutput{remote_->Invoke([&](Glue& glue) { return glue.GetKey(typeId); })};
    });
}

ara::core::Future<GetMetaDataOutput> TypeIdAccessProxy::CallGetMetaData(std::uint16_t typeId) {
    return MakeReadyFuture([&] {
        const auto [genus, length] =
            remote_->Invoke([&](Glue& glue) { return glue.GetMetaData(typeId); });
        return GetMetaDataOutput{genus, length};
    });
}

ara::core::Future<void> TypeIdAccessProxy::CallIsTypeIdReady(std::uint16_t typeId) {
    return MakeReadyFuture(
        [&] { remote_->Invoke([&](Glue& glue) { glue.IsTypeIdReady(typeId); }); });
}

}  // namespace zelk::interfaces::typeidaccess::proxy
