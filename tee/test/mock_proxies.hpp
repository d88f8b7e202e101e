#ifndef TEE_TEST_MOCK_PROXIES_HPP
#define TEE_TEST_MOCK_PROXIES_HPP

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ac/dm/genericuds/genericuds_proxy.hpp"
#include "ac/dm/genericuds/genericuds_skeleton.hpp"
#include "csc_logging/log_capture.hpp"
#include "tee/service_binding.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"
#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_proxy.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_skeleton.hpp"

namespace qervo::tee {

/// A handle to nowhere: the proxies made from it never touch a bus.
inline ara::com::ServiceHandle TestHandle() {
    return ara::com::ServiceHandle("unix:path=/nonexistent", "kelvane.test.Service", "/test");
}

namespace diag = zelk::interfaces::diagservices;
namespace typeid_access = zelk::interfaces::typeidaccess;
using ara::core::Future;

class MockDiagServicesProxy : public diag::proxy::DiagServicesProxy {
public:
    MockDiagServicesProxy() : DiagServicesProxy(TestHandle()) {}
    MOCK_METHOD(Future<diag::GetIdentityHashOutput>, CallGetIdentityHash, (const Hash&),
                (override));
    MOCK_METHOD(Future<diag::GetPssHashOutput>, CallGetPssHash, (), (override));
    MOCK_METHOD(Future<diag::GetTrainingCounterOutput>, CallGetTrainingCounter, (), (override));
    MOCK_METHOD(Future<diag::GetZelkVINOutput>, CallGetZelkVIN, (), (override));
    MOCK_METHOD(Future<void>, CallHandleDlc, (const std::vector<std::uint8_t>&), (override));
};

class MockTypeIdAccessProxy : public typeid_access::proxy::TypeIdAccessProxy {
public:
    MockTypeIdAccessProxy() : TypeIdAccessProxy(TestHandle()) {}
    MOCK_METHOD(Future<typeid_access::GetCertificateOutput>, CallGetCertificate, (std::uint16_t),
                (override));
};

class MockGenericUDSServiceProxy : public ac::dm::genericuds::proxy::GenericUDSServiceProxy {
public:
    MockGenericUDSServiceProxy() : GenericUDSServiceProxy(TestHandle()) {}
    MOCK_METHOD(Future<ac::dm::genericuds::HandleMessageOutput>, CallHandleMessage,
                (std::uint8_t, const std::vector<std::uint8_t>&), (override));
};

/// A proxy call's action that answers `output` (nothing, for a call without one).
template <typename Output>
auto Answers(Output output) {
    return [output](auto&&...) { return ara::core::MakeReadyFuture([output] { return output; }); };
}
inline auto Answers() {
    return [](auto&&...) { return ara::core::MakeReadyFuture([] {}); };
}

/// A proxy call's action whose answer is the exception `error`.
template <typename Output, typename Error>
auto Raises(Error error) {
    return [error](auto&&...) {
        return ara::core::MakeReadyFuture([error]() -> Output { throw error; });
    };
}

/// Service discovery that a test drives; `journal` notes "search <name>" and "stop <name>".
template <typename Proxy>
class FakeDiscovery {
public:
    FakeDiscovery(std::shared_ptr<Proxy> proxy, std::vector<std::string>& journal, std::string name)
        : proxy_(std::move(proxy)), journal_(journal), name_(std::move(name)) {}

    ServiceBinding<Proxy> Binding() {
        return {[this](ara::com::FindServiceHandler<ara::com::ServiceHandle> handler) {
                    handler_ = std::move(handler);
                    journal_.push_back("search " + name_);
                    return ara::com::FindServiceHandle();
                },
                [this](ara::com::FindServiceHandle) { journal_.push_back("stop " + name_); },
                [this](const ara::com::ServiceHandle&) { return proxy_; }};
    }
    void Appear() { handler_({TestHandle()}, ara::com::FindServiceHandle()); }
    void Disappear() { handler_({}, ara::com::FindServiceHandle()); }

private:
    std::shared_ptr<Proxy> proxy_;
    std::vector<std::string>& journal_;
    std::string name_;
    ara::com::FindServiceHandler<ara::com::ServiceHandle> handler_;
};

/// An accessor's life: `whileAbsent`, the service comes and goes, a second search; `lines` logged.
template <typename Accessor, typename... Arguments>
void ExpectReadinessFollowsTheSearch(const std::vector<std::string>& lines,
                                     const std::function<void(Accessor&)>& whileAbsent,
                                     Arguments... arguments) {
    using Proxy = typename Accessor::Proxy;
    std::vector<std::string> journal;
    FakeDiscovery<Proxy> discovery(std::make_shared<Proxy>(TestHandle()), journal, "it");
    csc_logging::LogCapture log;
    SCOPED_TRACE(lines.front());
    {
        Accessor sut(arguments..., discovery.Binding());
        sut.Initialize();
        whileAbsent(sut);
        discovery.Appear();
        EXPECT_TRUE(sut.IsReady());
        discovery.Disappear();
        EXPECT_FALSE(sut.IsReady());
        sut.Initialize();
    }
    EXPECT_EQ(journal, (std::vector<std::string>{"search it", "stop it", "search it", "stop it"}));
    EXPECT_EQ(log.Texts(), lines);
}

}  // namespace qervo::tee

#endif  // TEE_TEST_MOCK_PROXIES_HPP
