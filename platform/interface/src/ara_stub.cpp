#include <exception>
#include <future>
#include <stdexcept>

#include "ac/com/runtime/component_singleton.hpp"
#include "ac/dm/genericuds/genericuds_proxy.hpp"
#include "ara/com/types.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_proxy.hpp"

// Nothing is ever found, so no proxy is made and no call is placed.

namespace ara::com {

bool ServiceHandle::operator==(const ServiceHandle&) const noexcept {
    return true;
}
bool FindServiceHandle::operator==(const FindServiceHandle&) const noexcept {
    return true;
}

}  // namespace ara::com

namespace ac::com::runtime {

Component_singleton::Component_singleton(bool, std::string) {}
Component_singleton::~Component_singleton() = default;

}  // namespace ac::com::runtime

namespace {

template <typename T>
ara::core::Future<T> NoService() {
    std::promise<T> promise;
    promise.set_exception(std::make_exception_ptr(std::runtime_error("no service")));
    return ara::core::Future<T>(promise.get_future());
}

}  // namespace

#define KELVANE_STUB_PROXY(Proxy)                                                                 \
    ara::com::FindServiceHandle Proxy::StartFindService(ara::com::FindServiceHandler<HandleType>, \
                                                        const ara::core::InstanceSpecifier&) {    \
        return {};                                                                                \
    }                                                                                             \
    void Proxy::StopFindService(ara::com::FindServiceHandle) {}                                   \
    class Proxy::Remote {};                                                                       \
    Proxy::Proxy(const HandleType& handle) : handle_(handle) {}                                   \
    Proxy::~Proxy() = default;

namespace zelk::interfaces::diagservices::proxy {

KELVANE_STUB_PROXY(DiagServicesProxy)
ara::core::Future<void> DiagServicesProxy::CallCheckVerificationHash(const Hash&) {
    return NoService<void>();
}
ara::core::Future<DebugOutput> DiagServicesProxy::CallDebug(const std::vector<std::uint8_t>&) {
    return NoService<DebugOutput>();
}
ara::core::Future<GetIdentityHashOutput> DiagServicesProxy::CallGetIdentityHash(const Hash&) {
    return NoService<GetIdentityHashOutput>();
}
ara::core::Future<GetKeyListOutput> DiagServicesProxy::CallGetKeyList() {
    return NoService<GetKeyListOutput>();
}
ara::core::Future<GetMissingKeyListOutput> DiagServicesProxy::CallGetMissingKeyList() {
    return NoService<GetMissingKeyListOutput>();
}
ara::core::Future<GetPssHashOutput> DiagServicesProxy::CallGetPssHash() {
    return NoService<GetPssHashOutput>();
}
ara::core::Future<GetStatusOutput> DiagServicesProxy::CallGetStatus() {
    return NoService<GetStatusOutput>();
}
ara::core::Future<GetTrainingCounterOutput> DiagServicesProxy::CallGetTrainingCounter() {
    return NoService<GetTrainingCounterOutput>();
}
ara::core::Future<GetZelkVINOutput> DiagServicesProxy::CallGetZelkVIN() {
    return NoService<GetZelkVINOutput>();
}
ara::core::Future<void> DiagServicesProxy::CallHandleDlc(const std::vector<std::uint8_t>&) {
    return NoService<void>();
}

}  // namespace zelk::interfaces::diagservices::proxy

namespace zelk::interfaces::typeidaccess::proxy {

KELVANE_STUB_PROXY(TypeIdAccessProxy)
ara::core::Future<GetCertificateOutput> TypeIdAccessProxy::CallGetCertificate(std::uint16_t) {
    return NoService<GetCertificateOutput>();
}
ara::core::Future<GetDataOutput> TypeIdAccessProxy::CallGetData(std::uint16_t) {
    return NoService<GetDataOutput>();
}
ara::core::Future<GetKeyOutput> TypeIdAccessProxy::CallGetKey(std::uint16_t) {
    return NoService<GetKeyOutput>();
}
ara::core::Future<GetMetaDataOutput> TypeIdAccessProxy::CallGetMetaData(std::uint16_t) {
    return NoService<GetMetaDataOutput>();
}
ara::core::Future<void> TypeIdAccessProxy::CallIsTypeIdReady(std::uint16_t) {
    return NoService<void>();
}

}  // namespace zelk::interfaces::typeidaccess::proxy

namespace ac::dm::genericuds::proxy {

KELVANE_STUB_PROXY(GenericUDSServiceProxy)
ara::core::Future<HandleMessageOutput> GenericUDSServiceProxy::CallHandleMessage(
    std::uint8_t, const std::vector<std::uint8_t>&) {
    return NoService<HandleMessageOutput>();
}

}  // namespace ac::dm::genericuds::proxy
