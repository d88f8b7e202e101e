#ifndef TEE_TEST_MOCK_PROXIES_HPP
#define TEE_TEST_MOCK_PROXIES_HPP

#include <gmock/gmock.h>

#include <memory>
#include <optional>

#include "ac/dm/genericuds/genericuds_proxy.hpp"
#include "tee/service_binding.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_proxy.hpp"

namespace qervo::tee {

/// A handle to nowhere: the proxies made from it never touch a bus.
inline ara::com::ServiceHandle TestHandle() {
    return ara::com::ServiceHandle("unix:path=/nonexistent", "kelvane.test.Service", "/test");
}

class MockDiagServicesProxy : public zelk::interfaces::diagservices::proxy::DiagServicesProxy {
public:
    MockDiagServicesProxy() : DiagServicesProxy(TestHandle()) {}
    MOCK_METHOD(ara::core::Future<void>, CallCheckVerificationHash, (const Hash&), (override));
    MOCK_METHOD(ara::core::Future<zelk::interfaces::diagservices::DebugOutput>, CallDebug,
                (const std::vector<std::uint8_t>&), (override));
    MOCK_METHOD(ara::core::Future<zelk::interfaces::diagservices::GetIdentityHashOutput>,
                CallGetIdentityHash, (const Hash&), (override));
    MOCK_METHOD(ara::core::Future<zelk::interfaces::diagservices::GetPssHashOutput>, CallGetPssHash,
                (), (override));
    MOCK_METHOD(ara::core::Future<zelk::interfaces::diagservices::GetTrainingCounterOutput>,
                CallGetTrainingCounter, (), (override));
    MOCK_METHOD(ara::core::Future<zelk::interfaces::diagservices::GetZelkVINOutput>, CallGetZelkVIN,
                (), (override));
    MOCK_METHOD(ara::core::Future<void>, CallHandleDlc, (const std::vector<std::uint8_t>&),
                (override));
};

class MockTypeIdAccessProxy : public zelk::interfaces::typeidaccess::proxy::TypeIdAccessProxy {
public:
    MockTypeIdAccessProxy() : TypeIdAccessProxy(TestHandle()) {}
    MOCK_METHOD(ara::core::Future<zelk::interfaces::typeidaccess::GetCertificateOutput>,
                CallGetCertificate, (std::uint16_t), (override));
};

class MockGenericUDSServiceProxy : public ac::dm::genericuds::proxy::GenericUDSServiceProxy {
public:
    MockGenericUDSServiceProxy() : GenericUDSServiceProxy(TestHandle()) {}
    MOCK_METHOD(ara::core::Future<ac::dm::genericuds::HandleMessageOutput>, CallHandleMessage,
                (std::uint8_t, const std::vector<std::uint8_t>&), (override));
};

/// Stands in for service discovery: keeps the handler the accessor registers
/// so that a test can announce or withdraw the service, and hands out `proxy`.
template <typename Proxy>
class FakeDiscovery {
public:
    explicit FakeDiscovery(std::shared_ptr<Proxy> proxy) : proxy_(std::move(proxy)) {}

    ServiceBinding<Proxy> Binding() {
        return {[this](ara::com::FindServiceHandler<ara::com::ServiceHandle> handler) {
                    handler_ = std::move(handler);
                    ++searches_;
                    return ara::com::FindServiceHandle();
                },
                [this](ara::com::FindServiceHandle) { ++stops_; },
                [this](const ara::com::ServiceHandle&) { return proxy_; }};
    }
    void Appear() { handler_({TestHandle()}, ara::com::FindServiceHandle()); }
    void Disappear() { handler_({}, ara::com::FindServiceHandle()); }
    int Searches() const { return searches_; }
    int Stops() const { return stops_; }

private:
    std::shared_ptr<Proxy> proxy_;
    ara::com::FindServiceHandler<ara::com::ServiceHandle> handler_;
    int searches_ = 0;
    int stops_ = 0;
};

}  // namespace qervo::tee

#endif  // TEE_TEST_MOCK_PROXIES_HPP
