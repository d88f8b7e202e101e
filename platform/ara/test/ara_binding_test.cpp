#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "ac/com/runtime/component_singleton.hpp"
#include "ara/com/com_error_domain.hpp"
#include "csc_logging/log_capture.hpp"
#include "idl/bus_connection.hpp"
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
using Handles = ara::com::ServiceHandleContainer<ara::com::ServiceHandle>;
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

/// Records what an availability handler was told.
class Availability {
public:
    ara::com::FindServiceHandler<ara::com::ServiceHandle> Handler() {
        return [this](Handles handles, ara::com::FindServiceHandle) {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(handles);
        };
    }
    /// The last report, once there are `count` of them (empty when there are fewer).
    Handles Nth(std::size_t count) const {
        WaitUntil([&] { return Calls() >= count; }, kTimeout);
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_.size() >= count ? calls_.back() : Handles{};
    }
    std::size_t Calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_.size();
    }

private:
    mutable std::mutex mutex_;
    std::vector<Handles> calls_;
};

TEST(AraBindingTest, SearchStartedBeforeOrAfterTheOfferFindsItAndAStoppedOneHearsNoMore) {
    PrivateDbusDaemon bus;
    ac::com::runtime::Component_singleton component(false, "");
    FakeDiagServices sut;
    Availability early;
    Availability late;

    auto earlySearch = DiagServicesProxy::StartFindService(early.Handler(), kDiagInstance);
    sut.OfferService();
    EXPECT_EQ(early.Nth(1).size(), 1u);
    // A search started after the offer finds it, with no empty list first.
    auto lateSearch = DiagServicesProxy::StartFindService(late.Handler(), kDiagInstance);
    EXPECT_EQ(late.Nth(1).size(), 1u);
    DiagServicesProxy::StopFindService(earlySearch);
    sut.StopOfferService();

    EXPECT_TRUE(late.Nth(2).empty());
    EXPECT_EQ(early.Calls(), 1u);
    DiagServicesProxy::StopFindService(lateSearch);
}

TEST(AraBindingTest, FailuresComeBackAsApplicationOrComErrorsAndTheProxyKeepsWorking) {
    PrivateDbusDaemon bus;
    DiagServicesProxy sut(ara::com::ServiceHandle(bus.Address(),
                                                  "zelk.interfaces.diagservices.DiagServices",
                                                  "/zelk/interfaces/diagservices/DiagServices"));
    auto comErrorOf = [](auto&& call) {
        try {
            call();
        } catch (const ara::com::ComException& error) {
            return error.Errc();
        }
        return static_cast<ara::com::ComErrc>(0);
    };

    EXPECT_EQ(comErrorOf([&] { sut.GetTrainingCounter().get(); }),
              ara::com::ComErrc::kServiceNotAvailable);
    FakeDiagServices service;
    service.OfferService();
    EXPECT_THROW(sut.HandleDlc(Bytes{}).get(), ara::com::ApplicationErrorException);
    EXPECT_EQ(comErrorOf([&] { sut.HandleDlc(Bytes{0xee}).get(); }),
              ara::com::ComErrc::kNetworkBindingFailure);
    EXPECT_EQ(sut.GetTrainingCounter().get().trainingCounter, 0xbeef);
    // A name another connection holds cannot be offered.
    auto other = idl::OpenBusConnection(bus.Address());
    FakeDiagServices second(ara::core::InstanceSpecifier("kelvane::test::Second"));
    other->requestName("kelvane.test.Second");
    EXPECT_THROW(second.OfferService(), ara::com::ComException);
}

TEST(AraBindingTest, LostBusIsReportedAsTheServiceGoneAndRejoinedWithOffersAndSearches) {
    csc_logging::LogCapture log;
    PrivateDbusDaemon bus;
    ac::com::runtime::Component_singleton component(true, "test");
    FakeDiagServices service;
    service.OfferService();
    Availability availability;
    auto search = DiagServicesProxy::StartFindService(availability.Handler(), kDiagInstance);
    ASSERT_EQ(availability.Nth(1).size(), 1u);

    bus.Stop();
    EXPECT_TRUE(availability.Nth(2).empty());
    EXPECT_TRUE(log.WaitFor("ara::com: lost bus", kTimeout));
    bus.Start();

    const auto found = availability.Nth(3);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(DiagServicesProxy(found.front()).GetTrainingCounter().get().trainingCounter, 0xbeef);
    DiagServicesProxy::StopFindService(search);
}

}  // namespace
