#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "ac/com/runtime/component_singleton.hpp"
#include "ac/dm/genericuds/genericuds_proxy.hpp"
#include "ac/dm/genericuds/genericuds_skeleton.hpp"
#include "ara/com/com_error_domain.hpp"
#include "csc_logging/log_capture.hpp"
#include "idl/bus_connection.hpp"
#include "runtime.hpp"
#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"
#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_proxy.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_skeleton.hpp"

namespace {

using namespace std::chrono_literals;
using kelvane::testing::PrivateDbusDaemon;
using kelvane::testing::WaitUntil;
using zelk::interfaces::diagservices::DiagServicesErrc;
using zelk::interfaces::diagservices::MakeApplicationError;
using zelk::interfaces::diagservices::proxy::DiagServicesProxy;
using Bytes = std::vector<std::uint8_t>;

constexpr auto kTimeout = 5s;

class FakeDiagServices : public zelk::interfaces::diagservices::skeleton::DiagServicesSkeleton {
public:
    using DiagServicesSkeleton::DiagServicesSkeleton;
    ~FakeDiagServices() override { StopOfferService(); }

    void CheckVerificationHash(const Hash&) override {}
    zelk::interfaces::diagservices::DebugOutput Debug(const Bytes& request) override {
        return {request};
    }
    zelk::interfaces::diagservices::GetIdentityHashOutput GetIdentityHash(
        const Hash& challenge) override {
        Hash reversed;
        std::copy(challenge.rbegin(), challenge.rend(), reversed.begin());
        return {reversed};
    }
    zelk::interfaces::diagservices::GetKeyListOutput GetKeyList() override { return {{11, 13}}; }
    zelk::interfaces::diagservices::GetMissingKeyListOutput GetMissingKeyList() override {
        return {{}};
    }
    zelk::interfaces::diagservices::GetPssHashOutput GetPssHash() override {
        return {{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d,
                 0x0e, 0xff}};
    }
    zelk::interfaces::diagservices::GetStatusOutput GetStatus() override { return {3, 7}; }
    zelk::interfaces::diagservices::GetTrainingCounterOutput GetTrainingCounter() override {
        return {0xbeef};
    }
    zelk::interfaces::diagservices::GetZelkVINOutput GetZelkVIN() override {
        return {
            {'W', 'V', 'W', 'Z', 'Z', 'Z', '1', 'K', 'Z', '1', '2', '3', '4', '5', '6', '7', '8'}};
    }
    void HandleDlc(const Bytes& dlc) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            received_.push_back(dlc);
        }
        if (dlc.empty()) {
            throw MakeApplicationError(DiagServicesErrc::ZELK_ERROR_DLC_INVALID_MAC);
        }
        if (dlc.front() == 0xee) {
            throw std::runtime_error("storage exploded");
        }
    }

    std::vector<Bytes> Received() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Bytes> received_;
};

/// Records what an availability handler was told.
class Availability {
public:
    ara::com::FindServiceHandler<ara::com::ServiceHandle> Handler() {
        return [this](ara::com::ServiceHandleContainer<ara::com::ServiceHandle> handles,
                      ara::com::FindServiceHandle) {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(handles);
        };
    }
    std::size_t Calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_.size();
    }
    ara::com::ServiceHandleContainer<ara::com::ServiceHandle> Last() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_.empty() ? ara::com::ServiceHandleContainer<ara::com::ServiceHandle>{}
                              : calls_.back();
    }
    bool WaitForCalls(std::size_t count) const {
        return WaitUntil([&] { return Calls() >= count; }, kTimeout);
    }

private:
    mutable std::mutex mutex_;
    std::vector<ara::com::ServiceHandleContainer<ara::com::ServiceHandle>> calls_;
};

const ara::core::InstanceSpecifier kDiagInstance(zelk::interfaces::diagservices::kInstance);

TEST(AraBindingTest, ServiceIsFoundLostAndFoundAgainAsItsOfferComesAndGoes) {
    PrivateDbusDaemon bus;
    ac::com::runtime::Component_singleton component(false, "");
    FakeDiagServices sut;
    Availability availability;

    auto search = DiagServicesProxy::StartFindService(availability.Handler(), kDiagInstance);
    sut.OfferService();
    ASSERT_TRUE(availability.WaitForCalls(1));
    ASSERT_EQ(availability.Last().size(), 1u);
    const auto handle = availability.Last().front();
    EXPECT_EQ(handle.BusName(), "zelk.interfaces.diagservices.DiagServices");
    EXPECT_EQ(handle.BusAddress(), bus.Address());
    EXPECT_FALSE(handle.Owner().empty());

    sut.StopOfferService();
    ASSERT_TRUE(availability.WaitForCalls(2));
    EXPECT_TRUE(availability.Last().empty());

    sut.OfferService();
    ASSERT_TRUE(availability.WaitForCalls(3));
    EXPECT_EQ(availability.Last().size(), 1u);

    DiagServicesProxy::StopFindService(search);
    sut.StopOfferService();
    sut.OfferService();
    // A search stopped sees nothing more: another search sees the offer, this one did not.
    Availability later;
    auto laterSearch = DiagServicesProxy::StartFindService(later.Handler(), kDiagInstance);
    ASSERT_TRUE(later.WaitForCalls(1));
    EXPECT_EQ(availability.Calls(), 3u);
    DiagServicesProxy::StopFindService(laterSearch);
}

TEST(AraBindingTest, SearchStartedAfterTheOfferFindsItAndNoEmptyListIsReportedFirst) {
    PrivateDbusDaemon bus;
    FakeDiagServices service;
    service.OfferService();
    Availability availability;

    auto search = DiagServicesProxy::StartFindService(availability.Handler(), kDiagInstance);

    ASSERT_TRUE(availability.WaitForCalls(1));
    EXPECT_EQ(availability.Last().size(), 1u);
    DiagServicesProxy::StopFindService(search);
}

TEST(AraBindingTest, MethodsCarryTheirArgumentsAndOutputsUnchanged) {
    PrivateDbusDaemon bus;
    FakeDiagServices service;
    service.OfferService();
    Availability availability;
    auto search = DiagServicesProxy::StartFindService(availability.Handler(), kDiagInstance);
    ASSERT_TRUE(availability.WaitForCalls(1));
    DiagServicesProxy sut(availability.Last().front());

    const auto pss = sut.GetPssHash().get().pssHash;
    const auto vin = sut.GetZelkVIN().get().vin;
    const auto counter = sut.GetTrainingCounter().get().trainingCounter;
    DiagServicesProxy::Hash challenge{};
    for (std::size_t i = 0; i < challenge.size(); ++i) {
        challenge[i] = static_cast<std::uint8_t>(i * 17);
    }
    const auto identity = sut.GetIdentityHash(challenge).get().identityHash;
    const Bytes dlc{0x00, 0x0a, 0x0d, 0xff, 0x00};
    sut.HandleDlc(dlc).get();
    const auto status = sut.GetStatus().get();

    EXPECT_EQ(pss.back(), 0xff);
    EXPECT_EQ(pss.front(), 0x00);
    EXPECT_EQ(std::string(vin.begin(), vin.end()), "WVWZZZ1KZ12345678");
    EXPECT_EQ(counter, 0xbeef);
    EXPECT_EQ(identity.front(), challenge.back());
    EXPECT_EQ(identity.back(), challenge.front());
    ASSERT_EQ(service.Received().size(), 1u);
    EXPECT_EQ(service.Received().front(), dlc);
    EXPECT_EQ(status.state, 3);
    EXPECT_EQ(status.trainingCounter, 7);
    DiagServicesProxy::StopFindService(search);
}

TEST(AraBindingTest, ApplicationErrorsComeBackWithTheirCodeAndTextOtherFailuresAsComErrors) {
    PrivateDbusDaemon bus;
    FakeDiagServices service;
    service.OfferService();
    DiagServicesProxy sut(ara::com::ServiceHandle(bus.Address(),
                                                  "zelk.interfaces.diagservices.DiagServices",
                                                  "/zelk/interfaces/diagservices/DiagServices"));

    try {
        sut.HandleDlc(Bytes{}).get();
        FAIL() << "no exception";
    } catch (const ara::com::ApplicationErrorException& error) {
        EXPECT_EQ(error.Error().Value(), 30);
        EXPECT_STREQ(error.what(), "DiagServices::ZELK_ERROR_DLC_INVALID_MAC::30");
    }
    try {
        sut.HandleDlc(Bytes{0xee}).get();
        FAIL() << "no exception";
    } catch (const ara::com::ComException& error) {
        EXPECT_EQ(error.Errc(), ara::com::ComErrc::kNetworkBindingFailure);
        EXPECT_NE(std::string(error.what()).find("storage exploded"), std::string::npos);
    }
    // The proxy keeps working after both.
    EXPECT_EQ(sut.GetTrainingCounter().get().trainingCounter, 0xbeef);
}

TEST(AraBindingTest, EachDomainKeepsItsOwnErrorNumbers) {
    PrivateDbusDaemon bus;
    struct TypeIds : zelk::interfaces::typeidaccess::skeleton::TypeIdAccessSkeleton {
        ~TypeIds() override { StopOfferService(); }
        zelk::interfaces::typeidaccess::GetCertificateOutput GetCertificate(
            std::uint16_t id) override {
            if (id == 11) {
                return {{0x30, 0x82, 0x00}};
            }
            throw zelk::interfaces::typeidaccess::MakeApplicationError(
                id == 99
                    ? zelk::interfaces::typeidaccess::TypeIdAccessErrc::ZELK_ERROR_GENERAL
                    : zelk::interfaces::typeidaccess::TypeIdAccessErrc::ZELK_ERROR_INVALID_TYPEID);
        }
        zelk::interfaces::typeidaccess::GetDataOutput GetData(std::uint16_t) override { return {}; }
        zelk::interfaces::typeidaccess::GetKeyOutput GetKey(std::uint16_t) override { return {}; }
        zelk::interfaces::typeidaccess::GetMetaDataOutput GetMetaData(std::uint16_t) override {
            return {27, 1024};
        }
        void IsTypeIdReady(std::uint16_t) override {}
    } typeIds;
    struct Uds : ac::dm::genericuds::skeleton::GenericUDSServiceSkeleton {
        ~Uds() override { StopOfferService(); }
        ac::dm::genericuds::HandleMessageOutput HandleMessage(std::uint8_t sid,
                                                              const Bytes& data) override {
            if (sid == 0x22 && data == Bytes{0xf1, 0x87}) {
                return {{0xf1, 0x87, 'V', '0', '4'}};
            }
            throw ac::dm::genericuds::MakeApplicationError(
                ac::dm::genericuds::GenericUDSServiceErrc::UDSServiceFailed);
        }
    } uds;
    typeIds.OfferService();
    uds.OfferService();
    zelk::interfaces::typeidaccess::proxy::TypeIdAccessProxy typeIdProxy(
        ara::com::ServiceHandle(bus.Address(), "zelk.interfaces.typeidaccess.TypeIdAccess",
                                "/zelk/interfaces/typeidaccess/TypeIdAccess"));
    ac::dm::genericuds::proxy::GenericUDSServiceProxy udsProxy(
        ara::com::ServiceHandle(bus.Address(), "ac.dm.genericuds.GenericUDSService",
                                "/ac/dm/genericuds/GenericUDSService"));

    auto errorOf = [](auto&& call) -> std::string {
        try {
            call();
        } catch (const ara::com::ApplicationErrorException& error) {
            return error.what();
        }
        return "none";
    };

    EXPECT_EQ(typeIdProxy.GetCertificate(11).get().certificate, (Bytes{0x30, 0x82, 0x00}));
    EXPECT_EQ(errorOf([&] { typeIdProxy.GetCertificate(12).get(); }),
              "TypeIdAccess::ZELK_ERROR_INVALID_TYPEID::20");
    EXPECT_EQ(errorOf([&] { typeIdProxy.GetCertificate(99).get(); }),
              "TypeIdAccess::ZELK_ERROR_GENERAL::2");
    EXPECT_EQ(typeIdProxy.GetMetaData(1).get().length, 1024u);
    EXPECT_EQ(udsProxy.HandleMessage(0x22, Bytes{0xf1, 0x87}).get().responseData,
              (Bytes{0xf1, 0x87, 'V', '0', '4'}));
    EXPECT_EQ(errorOf([&] { udsProxy.HandleMessage(0x10, Bytes{}).get(); }),
              "GenericUDSService::UDSServiceFailed::2");
}

TEST(AraBindingTest, CallingAnAbsentServiceIsAComErrorAndATakenNameCannotBeOffered) {
    PrivateDbusDaemon bus;
    DiagServicesProxy sut(ara::com::ServiceHandle(bus.Address(),
                                                  "zelk.interfaces.diagservices.DiagServices",
                                                  "/zelk/interfaces/diagservices/DiagServices"));

    try {
        sut.GetPssHash().get();
        FAIL() << "no exception";
    } catch (const ara::com::ComException& error) {
        EXPECT_EQ(error.Errc(), ara::com::ComErrc::kServiceNotAvailable);
    }

    FakeDiagServices first;
    first.OfferService();
    auto other = idl::OpenBusConnection(bus.Address());
    FakeDiagServices second(ara::core::InstanceSpecifier("kelvane::test::Second"));
    other->requestName("kelvane.test.Second");
    EXPECT_THROW(second.OfferService(), ara::com::ComException);
    EXPECT_EQ(sut.GetTrainingCounter().get().trainingCounter, 0xbeef);
}

TEST(AraBindingTest, LosingTheBusReportsTheServiceGoneWithoutEndingTheProcess) {
    csc_logging::LogCapture log;
    auto bus = std::make_unique<PrivateDbusDaemon>();
    ac::com::runtime::Component_singleton component(true, "test");
    FakeDiagServices service;
    service.OfferService();
    Availability availability;
    auto search = DiagServicesProxy::StartFindService(availability.Handler(), kDiagInstance);
    ASSERT_TRUE(availability.WaitForCalls(1));

    bus.reset();

    ASSERT_TRUE(availability.WaitForCalls(2));
    EXPECT_TRUE(availability.Last().empty());
    EXPECT_TRUE(log.Contains(csc_logging::LogLevel::kError, "ara::com: lost bus"));
    DiagServicesProxy::StopFindService(search);
}

TEST(AraBindingTest, BusComingBackIsRejoinedWithOffersAndSearchesRestored) {
    PrivateDbusDaemon bus;
    {
        ac::com::runtime::Component_singleton component(true, "");
        FakeDiagServices service;
        service.OfferService();
        Availability availability;
        auto search = DiagServicesProxy::StartFindService(availability.Handler(), kDiagInstance);
        ASSERT_TRUE(availability.WaitForCalls(1));

        bus.Stop();
        ASSERT_TRUE(availability.WaitForCalls(2));
        EXPECT_TRUE(availability.Last().empty());
        bus.Start();

        ASSERT_TRUE(availability.WaitForCalls(3));
        ASSERT_EQ(availability.Last().size(), 1u);
        DiagServicesProxy sut(availability.Last().front());
        EXPECT_EQ(sut.GetTrainingCounter().get().trainingCounter, 0xbeef);
        DiagServicesProxy::StopFindService(search);
    }
}

TEST(AraBindingTest, InstanceSpecifiersMapToBusNames) {
    using ara::com::internal::Runtime;

    EXPECT_EQ(Runtime::BusNameOf(kDiagInstance), "zelk.interfaces.diagservices.DiagServices");
    EXPECT_EQ(Runtime::BusNameOf(ara::core::InstanceSpecifier("kelvane/vehicle/Uds_2")),
              "kelvane.vehicle.Uds_2");
    EXPECT_THROW(Runtime::BusNameOf(ara::core::InstanceSpecifier("Single")), std::invalid_argument);
    EXPECT_THROW(Runtime::BusNameOf(ara::core::InstanceSpecifier("a::1b")), std::invalid_argument);
    EXPECT_THROW(Runtime::BusNameOf(ara::core::InstanceSpecifier("a b::c")), std::invalid_argument);
}

}  // namespace
