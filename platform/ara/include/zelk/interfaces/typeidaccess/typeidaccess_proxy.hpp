#ifndef ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_PROXY_HPP
#define ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_PROXY_HPP

#include <cstdint>
#include <memory>

#include "ara/com/proxy_method.hpp"
#include "ara/com/types.hpp"
#include "ara/core/future.hpp"
#include "ara/core/instance_specifier.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_common.hpp"

namespace zelk::interfaces::typeidaccess::proxy {

/// Client side of one TypeIdAccess instance; see DiagServicesProxy for how
/// the method members, futures and errors behave.
class TypeIdAccessProxy {
public:
    using HandleType = ara::com::ServiceHandle;

    static ara::com::FindServiceHandle StartFindService(
        ara::com::FindServiceHandler<HandleType> handler,
        const ara::core::InstanceSpecifier& instance);
    static void StopFindService(ara::com::FindServiceHandle handle);

    explicit TypeIdAccessProxy(const HandleType& handle);
    virtual ~TypeIdAccessProxy();
    TypeIdAccessProxy(const TypeIdAccessProxy&) = delete;
    TypeIdAccessProxy& operator=(const TypeIdAccessProxy&) = delete;

    const HandleType& GetHandle() const { return handle_; }

    ara::com::ProxyMethod<TypeIdAccessProxy, GetCertificateOutput, std::uint16_t> GetCertificate{
        *this, &TypeIdAccessProxy::CallGetCertificate};
    ara::com::ProxyMethod<TypeIdAccessProxy, GetDataOutput, std::uint16_t> GetData{
        *this, &TypeIdAccessProxy::CallGetData};
    ara::com::ProxyMethod<TypeIdAccessProxy, GetKeyOutput, std::uint16_t> GetKey{
        *this, &TypeIdAccessProxy::CallGetKey};
    ara::com::ProxyMethod<TypeIdAccessProxy, GetMetaDataOutput, std::uint16_t> GetMetaData{
        *this, &TypeIdAccessProxy::CallGetMetaData};
    ara::com::ProxyMethod<TypeIdAccessProxy, void, std::uint16_t> IsTypeIdReady{
        *this, &TypeIdAccessProxy::CallIsTypeIdReady};

protected:
    // The remote calls behind the members; a test double overrides them.
    virtual ara::core::Future<GetCertificateOutput> CallGetCertificate(std::uint16_t typeId);
    virtual ara::core::Future<GetDataOutput> CallGetData(std::uint16_t typeId);
    virtual ara::core::Future<GetKeyOutput> CallGetKey(std::uint16_t typeId);
    virtual ara::core::Future<GetMetaDataOutput> CallGetMetaData(std::uint16_t typeId);
    virtual ara::core::Future<void> CallIsTypeIdReady(std::uint16_t typeId);

private:
    class Remote;

    HandleType handle_;
    std::unique_ptr<Remote> remote_;
};

}  // namespace zelk::interfaces::typeidaccess::proxy

#endif  // ZELK_INTERFACES_TYPEIDACCESS_TYPEIDACCESS_PROXY_HPP
