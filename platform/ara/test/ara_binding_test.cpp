#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "ac/com/runtime/component_singleton.hpp"
#include "ac/dm/genericuds/genericuds_proxy.hpp"
#include "ac/dm/genericuds/genericuds_skeleton.hpp"
#include "ara/com/com_error_domain.hpp"
#include "csc_logging/log_capture.hpp"
#include "error_domain.hpp"
#include "service_domains.hpp"
#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"

// The binding on a bus of the test's own; each service's methods and errors are carried
// through the client's accessors in their own tests.
namespace {

using namespace std::chrono_literals;
using ac::dm::genericuds::proxy::GenericUDSServiceProxy;
using kelvane::testing::PrivateDbusDaemon;
using kelvane::testing::WaitUntil;
using Bytes = std::vector<std::uint8_t>;
using Sizes = std::vector<std::size_t>;
namespace diag = zelk::interfaces::diagservices;
namespace uds = ac::dm::genericuds;

constexpr auto kTimeout = 5s;
const ara::core::InstanceSpecifier kUdsInstance(uds::kInstance);

class FakeUdsService : public uds::skeleton::GenericUDSServiceSkeleton {
public:
    ~FakeUdsService() override { StopOfferService(); }

    uds::HandleMessageOutput HandleMessage(std::uint8_t sid, const Bytes&) override {
        if (sid == 0) {
            throw uds::MakeApplicationError(uds::GenericUDSServiceErrc::UDSServiceFailed);
        }
        if (sid == 1) {
            throw std::runtime_error("storage exploded");
        }
        return {{sid}};
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

GenericUDSServiceProxy ProxyOn(const PrivateDbusDaemon& bus) {
    return GenericUDSServiceProxy(ara::com::ServiceHandle(bus.Address(),
                                                          "ac.dm.genericuds.GenericUDSService",
                                                          "/ac/dm/genericuds/GenericUDSService"));
}

TEST(AraBindingTest, SearchesAndCallsFollowTheOfferThroughALostBusUntilStopped) {
    csc_logging::LogCapture log;
    PrivateDbusDaemon bus;
    ac::com::runtime::Component_singleton component(true, "test");
    FakeUdsService service;
    Availability early;
    Availability late;
    auto proxy = ProxyOn(bus);
    EXPECT_THROW(proxy.HandleMessage(0x22, {}).get(), ara::com::ComException);
    auto earlySearch = GenericUDSServiceProxy::StartFindService(early.Handler(), kUdsInstance);
    service.OfferService();
    ASSERT_EQ(early.Reported(1), Sizes{1});
    // Failures in the service come back as application or binding errors; the proxy goes on.
    EXPECT_THROW(proxy.HandleMessage(0, {}).get(), ara::com::ApplicationErrorException);
    EXPECT_THROW(proxy.HandleMessage(1, {}).get(), ara::com::ComException);
    EXPECT_EQ(proxy.HandleMessage(0x22, {}).get().responseData, Bytes{0x22});

    bus.Stop();
    EXPECT_TRUE(log.WaitFor("ara::com: lost bus", kTimeout));
    bus.Start();

    EXPECT_EQ(early.Reported(3), (Sizes{1, 0, 1}));
    EXPECT_EQ(ProxyOn(bus).HandleMessage(0x22, {}).get().responseData, Bytes{0x22});
    // A search started after the offer finds it with no empty list first.
    auto lateSearch = GenericUDSServiceProxy::StartFindService(late.Handler(), kUdsInstance);
    EXPECT_EQ(late.Reported(1), Sizes{1});
    GenericUDSServiceProxy::StopFindService(earlySearch);
    service.StopOfferService();
    EXPECT_EQ(late.Reported(2), (Sizes{1, 0}));
    EXPECT_EQ(early.Reported(), (Sizes{1, 0, 1}));
    GenericUDSServiceProxy::StopFindService(lateSearch);
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
}

}  // namespace
