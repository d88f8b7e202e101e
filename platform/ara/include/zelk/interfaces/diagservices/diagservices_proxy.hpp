#ifndef ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_PROXY_HPP
#define ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_PROXY_HPP

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "ara/com/proxy_method.hpp"
#include "ara/com/types.hpp"
#include "ara/core/future.hpp"
#include "ara/core/instance_specifier.hpp"
#include "zelk/interfaces/diagservices/diagservices_common.hpp"

namespace zelk::interfaces::diagservices::proxy {

/// Client side of one DiagServices instance. Each method member is callable
/// (`proxy.GetPssHash()`) and returns the future of the call; get() throws the
/// ara::com::ApplicationErrorException the service answered with.
class DiagServicesProxy {
public:
    using HandleType = ara::com::ServiceHandle;
    using Hash = std::array<std::uint8_t, 16>;

    /// `handler` runs on the binding's thread: first when an instance is found,
    /// then on every change (an empty container when it went away).
    static ara::com::FindServiceHandle StartFindService(
        ara::com::FindServiceHandler<HandleType> handler,
        const ara::core::InstanceSpecifier& instance);
    /// The handler is not running and is not called again once this returns.
    static void StopFindService(ara::com::FindServiceHandle handle);

    explicit DiagServicesProxy(const HandleType& handle);
    virtual ~DiagServicesProxy();
    DiagServicesProxy(const DiagServicesProxy&) = delete;
    DiagServicesProxy& operator=(const DiagServicesProxy&) = delete;

    const HandleType& GetHandle() const { return handle_; }

    ara::com::ProxyMethod<DiagServicesProxy, void, const Hash&> CheckVerificationHash{
        *this, &DiagServicesProxy::CallCheckVerificationHash};
    ara::com::ProxyMethod<DiagServicesProxy, DebugOutput, const std::vector<std::uint8_t>&> Debug{
        *this, &DiagServicesProxy::CallDebug};
    ara::com::ProxyMethod<DiagServicesProxy, GetIdentityHashOutput, const Hash&> GetIdentityHash{
        *this, &DiagServicesProxy::CallGetIdentityHash};
    ara::com::ProxyMethod<DiagServicesProxy, GetKeyListOutput> GetKeyList{
        *this, &DiagServicesProxy::CallGetKeyList};
    ara::com::ProxyMethod<DiagServicesProxy, GetMissingKeyListOutput> GetMissingKeyList{
        *this, &DiagServicesProxy::CallGetMissingKeyList};
    ara::com::ProxyMethod<DiagServicesProxy, GetPssHashOutput> GetPssHash{
        *this, &DiagServicesProxy::CallGetPssHash};
    ara::com::ProxyMethod<DiagServicesProxy, GetStatusOutput> GetStatus{
        *this, &DiagServicesProxy::CallGetStatus};
    ara::com::ProxyMethod<DiagServicesProxy, GetTrainingCounterOutput> GetTrainingCounter{
        *this, &DiagServicesProxy::CallGetTrainingCounter};
    ara::com::ProxyMethod<DiagServicesProxy, GetZelkVINOutput> GetZelkVIN{
        *this, &DiagServicesProxy::CallGetZelkVIN};
    ara::com::ProxyMethod<DiagServicesProxy, void, const std::vector<std::uint8_t>&> HandleDlc{
        *this, &DiagServicesProxy::CallHandleDlc};

protected:
    // The remote calls behind the members; a test double overrides them.
    virtual ara::core::Future<void> CallCheckVerificationHash(const Hash& verificationHash);
    virtual ara::core::Future<DebugOutput> CallDebug(const std::vector<std::uint8_t>& request);
    virtual ara::core::Future<GetIdentityHashOutput> CallGetIdentityHash(const Hash& challenge);
    virtual ara::core::Future<GetKeyListOutput> CallGetKeyList();
    virtual ara::core::Future<GetMissingKeyListOutput> CallGetMissingKeyList();
    virtual ara::core::Future<GetPssHashOutput> CallGetPssHash();
    virtual ara::core::Future<GetStatusOutput> CallGetStatus();
    virtual ara::core::Future<GetTrainingCounterOutput> CallGetTrainingCounter();
    virtual ara::core::Future<GetZelkVINOutput> CallGetZelkVIN();
    virtual ara::core::Future<void> CallHandleDlc(const std::vector<std::uint8_t>& dlc);

private:
    class Remote;

    HandleType handle_;
    std::unique_ptr<Remote> remote_;
};

}  // namespace zelk::interfaces::diagservices::proxy

#endif  // ZELK_INTERFACES_DIAGSERVICES_DIAGSERVICES_PROXY_HPP
