#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "csc_logging/log_capture.hpp"
#include "tee/diagnostic_services.hpp"
#include "tee/generic_uds_services.hpp"
#include "tee/typeid_access_service.hpp"
#include "tee/zelk_online_update_client.hpp"
#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"
#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_skeleton.hpp"

// The accessors and the facade against services offered on a bus of the test's own.
namespace qervo::tee {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogCapture;
using csc_logging::LogLevel;
using kelvane::testing::WaitUntil;
using Bytes = std::vector<std::uint8_t>;
namespace diag = zelk::interfaces::diagservices;
namespace typeid_access = zelk::interfaces::typeidaccess;

const Bytes kBadDlc{0xba, 0xd0};
const std::string kBaseCertificate("\x30\x82\x01\x0a\x00\xff", 6);

class TestDiagServices : public diag::skeleton::DiagServicesSkeleton {
public:
    ~TestDiagServices() override { StopOfferService(); }

    void CheckVerificationHash(const Hash&) override {}
    diag::DebugOutput Debug(const Bytes&) override { return {}; }
    diag::GetIdentityHashOutput GetIdentityHash(const Hash& challenge) override {
        return {challenge};
    }
    diag::GetKeyListOutput GetKeyList() override { return {}; }
    diag::GetMissingKeyListOutput GetMissingKeyList() override { return {}; }
    diag::GetPssHashOutput GetPssHash() override {
        diag::GetPssHashOutput output{};
        output.pssHash.fill(0x5a);
        return output;
    }
    diag::GetStatusOutput GetStatus() override { return {0, 0}; }
    diag::GetTrainingCounterOutput GetTrainingCounter() override { return {12}; }
    diag::GetZelkVINOutput GetZelkVIN() override {
        diag::GetZelkVINOutput output{};
        output.vin.fill('W');
        return output;
    }
    void HandleDlc(const Bytes& dlc) override {
        if (dlc == kBadDlc) {
            throw diag::MakeApplicationError(diag::DiagServicesErrc::ZELK_ERROR_DLC_INVALID_MAC);
        }
    }
};

class TestTypeIdAccess : public typeid_access::skeleton::TypeIdAccessSkeleton {
public:
    ~TestTypeIdAccess() override { StopOfferService(); }

    typeid_access::GetCertificateOutput GetCertificate(std::uint16_t typeId) override {
        if (typeId == 11) {
            return {Bytes(kBaseCertificate.begin(), kBaseCertificate.end())};
        }
        throw typeid_access::MakeApplicationError(
            typeid_access::TypeIdAccessErrc::ZELK_ERROR_INVALID_TYPEID);
    }
    typeid_access::GetDataOutput GetData(std::uint16_t) override { return {}; }
    typeid_access::GetKeyOutput GetKey(std::uint16_t) override { return {}; }
    typeid_access::GetMetaDataOutput GetMetaData(std::uint16_t) override { return {0, 0}; }
    void IsTypeIdReady(std::uint16_t) override {}
};

class TeeIntegrationTest : public ::testing::Test {
protected:
    kelvane::testing::PrivateDbusDaemon bus_;
    kelvane::testing::TemporaryDirectory directory_;
    LogCapture log_;
};

TEST_F(TeeIntegrationTest, ReadinessFollowsTheServiceAsItStopsAndComesBack) {
    TestDiagServices service;
    service.OfferService();
    DiagnosticServices sut;
    sut.Initialize();
    ASSERT_TRUE(WaitUntil([&] { return sut.IsReady(); }, 5s));
    Bytes pss;
    EXPECT_EQ(sut.zelk_get_pss_hash(pss), 100);
    EXPECT_EQ(pss, Bytes(16, 0x5a));

    service.StopOfferService();
    ASSERT_TRUE(WaitUntil([&] { return !sut.IsReady(); }, 5s));
    // The line may come just after readiness changed.
    EXPECT_TRUE(log_.WaitFor("DiagnosticServices service stopped", 5s));
    EXPECT_EQ(sut.zelk_get_pss_hash(pss), 101);

    service.OfferService();
    ASSERT_TRUE(WaitUntil([&] { return sut.IsReady(); }, 5s));
    EXPECT_TRUE(log_.WaitFor("DiagnosticServices service found", 5s, 2));
    std::uint16_t counter = 0;
    EXPECT_EQ(sut.zelk_get_training_counter(counter), 100);
    EXPECT_EQ(counter, 12);
}

TEST_F(TeeIntegrationTest, ApplicationErrorsArriveAsCodesAndTheFacadeMapsThem) {
    TestDiagServices diagService;
    TestTypeIdAccess typeIdService;
    diagService.OfferService();
    typeIdService.OfferService();
    DiagnosticServices diagAccessor;
    TypeidAccessService typeIdAccessor;
    diagAccessor.Initialize();
    typeIdAccessor.Initialize();
    ZELKOnlineUpdateClient sut(ZELKOnlineUpdateClient::Dependencies::Default(TESMO_ID_PATH));
    sut.init();
    ASSERT_TRUE(log_.WaitFor("DiagnosticServices service found", 5s, 2));
    ASSERT_TRUE(log_.WaitFor("TypeidAccessService service found", 5s, 2));
    std::string certificate = "kept";

    EXPECT_EQ(diagAccessor.zelk_handle_dlc(kBadDlc), 30);
    EXPECT_EQ(sut.zelk_handle_dlc(kBadDlc), ClientError::CLIENT_ERROR_ZELK);
    EXPECT_EQ(sut.zelk_handle_dlc(Bytes{0x01}), ClientError::CLIENT_OK);
    EXPECT_EQ(typeIdAccessor.zelk_get_certificate("ZELK", certificate), 20);
    EXPECT_EQ(sut.zelk_get_certificate("ZELK", certificate),
              ClientError::CLIENT_ERROR_TYPEID_ACCESS);
    EXPECT_EQ(certificate, "kept");
    EXPECT_EQ(sut.zelk_get_certificate("BASE", certificate), ClientError::CLIENT_OK);
    EXPECT_EQ(certificate, kBaseCertificate);
    EXPECT_TRUE(
        log_.Contains("DiagnosticServices: zelk_handle_dlc() "
                      "exception=DiagServices::ZELK_ERROR_DLC_INVALID_MAC::30"));
}

TEST_F(TeeIntegrationTest, FacadeReadsTheRemainingIdentityValues) {
    const std::string tesmo = "TESMO\x00ID\n";
    ZELKOnlineUpdateClient sut(
        ZELKOnlineUpdateClient::Dependencies::Default(directory_.Write("tesmo.bin", tesmo)));
    sut.init();
    TestDiagServices service;
    service.OfferService();
    ASSERT_TRUE(log_.WaitFor("DiagnosticServices service found", 5s));
    std::string text;
    Bytes bytes;
    Bytes identity;

    EXPECT_EQ(sut.ecu_get_tesmo_id_string(text), ClientError::CLIENT_OK);
    EXPECT_EQ(text, tesmo);
    EXPECT_EQ(sut.ecu_get_diagnostic_id(text), ClientError::CLIENT_OK);
    EXPECT_EQ(text, "C003");
    EXPECT_EQ(sut.ecu_get_part_number(text), ClientError::CLIENT_OK);
    EXPECT_EQ(text, "V04007000TB");
    EXPECT_EQ(sut.zelk_get_zelk_vin(bytes), ClientError::CLIENT_OK);
    EXPECT_EQ(bytes, Bytes(17, 'W'));
    EXPECT_EQ(sut.zelk_get_identity_hash(identity, Bytes(16, 0x42)), ClientError::CLIENT_OK);
    EXPECT_EQ(identity, Bytes(16, 0x42));
    EXPECT_EQ(sut.zelk_get_identity_hash(identity, Bytes(17, 0x42)),
              ClientError::CLIENT_ERROR_PARAMETER);
}

TEST_F(TeeIntegrationTest, CertificateWaitsForATypeIdServiceThatAppearsLate) {
    ZELKOnlineUpdateClient sut(ZELKOnlineUpdateClient::Dependencies::Default(TESMO_ID_PATH));
    sut.init();
    TestTypeIdAccess service;
    // The service comes up after the second failed check, so the third one finds it.
    auto offer = std::async(std::launch::async, [&] {
        if (log_.WaitFor("typeidaccess service isn't ready, wait for 1 s", 10s, 2)) {
            service.OfferService();
        }
    });
    std::string certificate;
    const auto start = std::chrono::steady_clock::now();

    const auto result = sut.zelk_get_certificate("BASE", certificate);

    const auto elapsed = std::chrono::steady_clock::now() - start;
    offer.get();
    EXPECT_EQ(result, ClientError::CLIENT_OK);
    EXPECT_EQ(certificate, kBaseCertificate);
    EXPECT_EQ(log_.Count(LogLevel::kWarning, "typeidaccess service isn't ready, wait for 1 s"), 2u);
    EXPECT_GE(elapsed, 2s);
    EXPECT_LT(elapsed, 4s);
}

}  // namespace
}  // namespace qervo::tee
