#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "ac/com/runtime/component_singleton.hpp"
#include "ara/com/com_error_domain.hpp"
#include "csc_logging/log_capture.hpp"
#include "error_domain.hpp"
#include "service_domains.hpp"
#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"
#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"

// The binding on a bus of the test's own. Method values, application errors and a
// service that comes and goes are carried through the client's accessors in their
// own tests.
namespace {

using namespace std::chrono_literals;
using kelvane::testing::PrivateDbusDaemon;
using kelvane::testing::WaitUntil;
using zelk::interfaces::diagservices::proxy::DiagServicesProxy;
using Bytes = std::vector<std::uint8_t>;
using Sizes = std::vector<std::size_t>;
namespace diag = zelk::interfaces::diagservices;

constexpr auto kTimeout = 5s;
const ara::core::InstanceSpecifier kDiagInstance(diag::kInstance);

class FakeDiagServices : public diag::skeleton::DiagServicesSkeleton {
public:
    using DiagServicesSkeleton::DiagServicesSkeleton;
    ~FakeDiagServices() override { StopOfferService(); }

    void CheckVerificationHash(const Hash&) override {}
    diag::DebugOutput Debug(const Bytes&) override { return {}; }
    diag::GetIdentityHashOutput GetIdentityHash(const Hash&) override { return {}; }
    diag::GetKeyListOutput GetKeyList() override { return {}; }
    diag::GetMissingKeyListOutput GetMissingKeyList() override { return {}; }
    diag::GetPssHashOutput GetPssHash() override { return {}; }
    diag::GetStatusOutput GetStatus() override { return {}; }
    diag::GetTrainingCounterOutput GetTrainingCounter() override { return {0xbeef}; }
    diag::GetZelkVINOutput GetZelkVIN() override { return {}; }
    void HandleDlc(const Bytes& dlc) override {
        if (dlc.empty()) {
            throw diag::MakeApplicationError(diag::DiagServicesErrc::ZELK_ERROR_DLC_INVALID_MAC);
        }
        throw std::runtime_error("storage exploded");
    }
};

// The size of each list an availability handler was given.
struct Availability {
    ara::com::FindServiceHandler<ara::com::ServiceHandle> Handler() {
        return [this](auto handles, ara::com::FindServiceHandle) {
            std::lock_guard<std::mutex> lock(mutex);
            sizes.push_back(handles.size());
        };
    }
    /// The sizes so far, once there are `count` of them.
    Sizes Reported(std::size_t count = 0) {
        Sizes copy;
        WaitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(mutex);
                copy = sizes;
                return copy.size() >= count;
            },
            kTimeout);
        return copy;
    }

    std::mutex mutex;
    Sizes sizes;
};

DiagServicesProxy ProxyOn(const PrivateDbusDaemon& bus) {
    return DiagServicesProxy(ara::com::ServiceHandle(bus.Address(),
                                                     "zelk.interfaces.diagservices.DiagServices",
                                                     "/zelk/interfaces/diagservices/DiagServices"));
}

TEST(AraBindingTest, SearchesAndCallsFollowTheOfferThroughALostBusUntilStopped) {
    csc_logging::LogCapture log;
    PrivateDbusDaemon bus;
    ac::com::runtime::Component_singleton component(true, "test");
    FakeDiagServices service;
    Availability early;
    Availability late;
    auto proxy = ProxyOn(bus);
    EXPECT_THROW(proxy.GetTrainingCounter().get(), ara::com::ComException);
    auto earlySearch = DiagServicesProxy::StartFindService(early.Handler(), kDiagInstance);
    service.OfferService();
    ASSERT_EQ(early.Reported(1), Sizes{1});
    // Failures in the service come back as application or binding errors; the proxy goes on.
    EXPECT_THROW(proxy.HandleDlc(Bytes{}).get(), ara::com::ApplicationErrorException);
    EXPECT_THROW(proxy.HandleDlc(Bytes{0xee}).get(), ara::com::ComException);
    EXPECT_EQ(proxy.GetTrainingCounter().get().trainingCounter, 0xbeef);

    bus.Stop();
    EXPECT_TRUE(log.WaitFor("ara::com: lost bus", kTimeout));
    bus.Start();

    EXPECT_EQ(early.Reported(3), (Sizes{1, 0, 1}));
    EXPECT_EQ(ProxyOn(bus).GetTrainingCounter().get().trainingCounter, 0xbeef);
    // A search started after the offer finds it with no empty list first.
    auto lateSearch = DiagServicesProxy::StartFindService(late.Handler(), kDiagInstance);
    EXPECT_EQ(late.Reported(1), Sizes{1});
    DiagServicesProxy::StopFindService(earlySearch);
    service.StopOfferService();
    EXPECT_EQ(late.Reported(2), (Sizes{1, 0}));
    EXPECT_EQ(early.Reported(), (Sizes{1, 0, 1}));
    DiagServicesProxy::StopFindService(lateSearch);
}

TEST(AraBindingTest, DeclaredErrorsGoOnTheBusByNameAndAnythingElseIsAComError) {
    using namespace ara::com::internal;
    const ErrorDomain& sut = DiagServicesDomain();
    const auto busy = diag::MakeApplicationError(diag::DiagServicesErrc::ZELK_ERROR_BUSY);

    const sdbus::Error onTheBus = sut.ToBusError(busy);

    EXPECT_EQ(onTheBus.getName(),
              "zelk.interfaces.diagservices.DiagServices.Error.ZELK_ERROR_BUSY");
    EXPECT_EQ(onTheBus.getMessage(), "DiagServices::ZELK_ERROR_BUSY::23");
    EXPECT_EQ(sut.ToBusError(TypeIdAccessDomain().Make(20)).getName(),
              "org.freedesktop.DBus.Error.Failed");
    EXPECT_THROW(sut.Raise(sdbus::Error(
                     "zelk.interfaces.diagservices.DiagServices.Error.ZELK_ERROR_NEW", "")),
                 ara::com::ComException);
    EXPECT_THROW(sut.Raise(sdbus::Error("org.freedesktop.DBus.Error.NoReply", "")),
                 ara::com::ComException);
    EXPECT_THROW(sut.Make(22), std::out_of_range);
}

}  // namespace
