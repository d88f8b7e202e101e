#include "tee/zelk_online_update_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "mock_accessors.hpp"
#include "tee/monotonic_sleep.hpp"

namespace qervo::tee {
namespace {

using csc_logging::LogCapture;
using csc_logging::LogLevel;
using ::testing::_;
using ::testing::DoAll;
using ::testing::InSequence;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::SetArgReferee;
using Bytes = std::vector<std::uint8_t>;

/// A client over mock accessors whose sleep only counts.
class ClientTest : public ::testing::Test {
protected:
    ClientTest()
        : sut_({[this] { return diag_; }, [this] { return typeId_; }, [this] { return uds_; },
                [this](std::chrono::seconds duration) {
                    sleeps_.push_back(duration);
                    if (onSleep_) {
                        onSleep_();
                    }
                }}) {}

    std::shared_ptr<NiceMock<MockDiagnosticServices>> diag_ =
        std::make_shared<NiceMock<MockDiagnosticServices>>();
    std::shared_ptr<NiceMock<MockTypeidAccessService>> typeId_ =
        std::make_shared<NiceMock<MockTypeidAccessService>>();
    std::shared_ptr<NiceMock<MockGenericUdsServices>> uds_ =
        std::make_shared<NiceMock<MockGenericUdsServices>>();
    std::vector<std::chrono::seconds> sleeps_;
    std::function<void()> onSleep_;
    ZELKOnlineUpdateClient sut_;
};

TEST_F(ClientTest, AccessorStatusesMapToClientErrorsAndUnlistedOnesCountAsSuccess) {
    using Mapping = ClientError (ZELKOnlineUpdateClient::*)(std::uint8_t) const;
    const Mapping diag = &ZELKOnlineUpdateClient::diagServicesErrorToClientError;
    const Mapping typeId = &ZELKOnlineUpdateClient::typeidAccessServicesErrorToClientError;
    const Mapping uds = &ZELKOnlineUpdateClient::getericUdsAccessErrorToClientError;
    const struct {
        const char* name;
        Mapping mapping;
        std::uint8_t status;
        ClientError expected;
    } rows[] = {
        {"diag ok", diag, 100, ClientError::CLIENT_OK},
        {"diag not available", diag, 101, ClientError::CLIENT_ERROR_NOT_READY},
        {"diag parameter", diag, 103, ClientError::CLIENT_ERROR_PARAMETER},
        {"diag 102", diag, 102, ClientError::CLIENT_ERROR_TYPEID_ACCESS},
        {"diag first listed", diag, 1, ClientError::CLIENT_ERROR_ZELK},
        {"diag last listed", diag, 54, ClientError::CLIENT_ERROR_ZELK},
        {"diag gap", diag, 22, ClientError::CLIENT_OK},
        {"diag above", diag, 255, ClientError::CLIENT_OK},
        {"typeid not available", typeId, 101, ClientError::CLIENT_ERROR_NOT_READY},
        {"typeid 102", typeId, 102, ClientError::CLIENT_ERROR_PARAMETER},
        {"typeid first listed", typeId, 2, ClientError::CLIENT_ERROR_TYPEID_ACCESS},
        {"typeid last listed", typeId, 27, ClientError::CLIENT_ERROR_TYPEID_ACCESS},
        {"typeid zelk", typeId, 51, ClientError::CLIENT_ERROR_ZELK},
        {"typeid gap", typeId, 24, ClientError::CLIENT_OK},
        {"typeid 1", typeId, 1, ClientError::CLIENT_OK},
        {"uds not available", uds, 101, ClientError::CLIENT_ERROR_NOT_READY},
        {"uds 102", uds, 102, ClientError::CLIENT_ERROR_ECU_DATA},
        {"uds 103", uds, 103, ClientError::CLIENT_OK},
    };
    for (const auto& row : rows) {
        EXPECT_EQ((sut_.*row.mapping)(row.status), row.expected) << row.name;
    }
}

TEST_F(ClientTest, InitMakesAndStartsEachAccessorBeforeMakingTheNext) {
    std::vector<std::string> events;
    ZELKOnlineUpdateClient sut(
        {[&] {
             events.push_back("make diag");
             EXPECT_CALL(*diag_, Initialize).WillOnce([&] { events.push_back("init diag"); });
             return diag_;
         },
         [&] {
             events.push_back("make typeid");
             EXPECT_CALL(*typeId_, Initialize).WillOnce([&] { events.push_back("init typeid"); });
             return typeId_;
         },
         [&] {
             events.push_back("make uds");
             EXPECT_CALL(*uds_, Initialize).WillOnce([&] { events.push_back("init uds"); });
             return uds_;
         },
         [](std::chrono::seconds) {}});

    sut.init();

    EXPECT_EQ(events, (std::vector<std::string>{"make diag", "init diag", "make typeid",
                                                "init typeid", "make uds", "init uds"}));
}

TEST_F(ClientTest, DestructionReleasesUdsThenTypeIdThenDiagnosticServices) {
    std::vector<std::string> released;
    struct Tracked : NiceMock<MockDiagnosticServices> {
        std::function<void()> onDestroy;
        ~Tracked() override { onDestroy(); }
    };
    struct TrackedTypeId : NiceMock<MockTypeidAccessService> {
        std::function<void()> onDestroy;
        ~TrackedTypeId() override { onDestroy(); }
    };
    struct TrackedUds : NiceMock<MockGenericUdsServices> {
        std::function<void()> onDestroy;
        ~TrackedUds() override { onDestroy(); }
    };
    {
        ZELKOnlineUpdateClient sut({[&] {
                                        auto accessor = std::make_shared<Tracked>();
                                        accessor->onDestroy = [&] { released.push_back("diag"); };
                                        return accessor;
                                    },
                                    [&] {
                                        auto accessor = std::make_shared<TrackedTypeId>();
                                        accessor->onDestroy = [&] { released.push_back("typeid"); };
                                        return accessor;
                                    },
                                    [&] {
                                        auto accessor = std::make_shared<TrackedUds>();
                                        accessor->onDestroy = [&] { released.push_back("uds"); };
                                        return accessor;
                                    },
                                    [](std::chrono::seconds) {}});
        sut.init();
    }

    EXPECT_EQ(released, (std::vector<std::string>{"uds", "typeid", "diag"}));
}

TEST_F(ClientTest, KeyManagementCallsReturnNotReadyAtOnceWhenTheServiceIsMissing) {
    sut_.init();
    LogCapture log;
    ON_CALL(*diag_, IsReady).WillByDefault(Return(false));
    EXPECT_CALL(*diag_, zelk_handle_dlc).Times(0);
    EXPECT_CALL(*diag_, zelk_get_identity_hash).Times(0);
    EXPECT_CALL(*diag_, zelk_get_pss_hash).Times(0);
    EXPECT_CALL(*diag_, zelk_get_training_counter).Times(0);
    EXPECT_CALL(*diag_, zelk_get_zelk_vin).Times(0);
    Bytes bytes;
    std::uint16_t counter = 0;

    EXPECT_EQ(sut_.zelk_handle_dlc(Bytes{1, 2}), ClientError::CLIENT_ERROR_NOT_READY);
    EXPECT_EQ(sut_.zelk_get_identity_hash(bytes, Bytes(16)), ClientError::CLIENT_ERROR_NOT_READY);
    EXPECT_EQ(sut_.zelk_get_pss_hash(bytes), ClientError::CLIENT_ERROR_NOT_READY);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), ClientError::CLIENT_ERROR_NOT_READY);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(bytes), ClientError::CLIENT_ERROR_NOT_READY);

    for (const char* line : {"zelk_handle_dlc() Error! diagservices isn't ready",
                             "zelk_get_identity_hash() Error! diagservices isn't ready",
                             "zelk_get_pss_hash() Error! diagservices isn't ready",
                             "zelk_get_training_counter() Error! diagservices isn't ready",
                             "zelk_get_zelk_vin() Error! diagservices isn't ready"}) {
        EXPECT_EQ(log.Count(LogLevel::kError, line), 1u) << line;
    }
    EXPECT_TRUE(sleeps_.empty());
}

TEST_F(ClientTest, KeyManagementCallsForwardTheirArgumentsAndMapTheStatus) {
    sut_.init();
    ON_CALL(*diag_, IsReady).WillByDefault(Return(true));
    const Bytes dlc{0x00, 0xff, 0x10};
    const Bytes challenge(16, 0xab);
    const Bytes hash(16, 0x5a);
    EXPECT_CALL(*diag_, zelk_handle_dlc(dlc)).WillOnce(Return(30));
    EXPECT_CALL(*diag_, zelk_get_identity_hash(_, challenge))
        .WillOnce(DoAll(SetArgReferee<0>(hash), Return(100)));
    EXPECT_CALL(*diag_, zelk_get_pss_hash(_)).WillOnce(Return(103));
    EXPECT_CALL(*diag_, zelk_get_training_counter(_))
        .WillOnce(DoAll(SetArgReferee<0>(std::uint16_t{513}), Return(22)));
    EXPECT_CALL(*diag_, zelk_get_zelk_vin(_)).WillOnce(Return(102));
    Bytes identity;
    Bytes pss;
    Bytes vin;
    std::uint16_t counter = 0;

    EXPECT_EQ(sut_.zelk_handle_dlc(dlc), ClientError::CLIENT_ERROR_ZELK);
    EXPECT_EQ(sut_.zelk_get_identity_hash(identity, challenge), ClientError::CLIENT_OK);
    EXPECT_EQ(identity, hash);
    EXPECT_EQ(sut_.zelk_get_pss_hash(pss), ClientError::CLIENT_ERROR_PARAMETER);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), ClientError::CLIENT_OK);
    EXPECT_EQ(counter, 513);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(vin), ClientError::CLIENT_ERROR_TYPEID_ACCESS);
}

TEST_F(ClientTest, CertificateReadyOnTheThirdCheckWaitsTwoSecondsWithTwoWarnings) {
    sut_.init();
    LogCapture log;
    EXPECT_CALL(*typeId_, IsReady)
        .WillOnce(Return(false))
        .WillOnce(Return(false))
        .WillRepeatedly(Return(true));
    EXPECT_CALL(*typeId_, zelk_get_certificate(std::string("BASE"), _))
        .WillOnce(DoAll(SetArgReferee<1>(std::string("\x30\x82", 2)), Return(100)));
    std::string certificate;

    const auto result = sut_.zelk_get_certificate("BASE", certificate);

    EXPECT_EQ(result, ClientError::CLIENT_OK);
    EXPECT_EQ(certificate, std::string("\x30\x82", 2));
    EXPECT_EQ(sleeps_, (std::vector<std::chrono::seconds>(2, std::chrono::seconds(1))));
    EXPECT_EQ(log.Count(LogLevel::kWarning,
                        "zelk_get_certificate() Warning! typeidaccess service isn't ready, wait "
                        "for 1 s"),
              2u);
    EXPECT_FALSE(log.Contains(LogLevel::kError, "zelk_get_certificate()"));
}

TEST_F(ClientTest, CertificateNeverReadyGivesUpAfterFiveWaitsAndSixChecks) {
    sut_.init();
    LogCapture log;
    EXPECT_CALL(*typeId_, IsReady).Times(6).WillRepeatedly(Return(false));
    EXPECT_CALL(*typeId_, zelk_get_certificate).Times(0);
    std::string certificate = "old";

    const auto result = sut_.zelk_get_certificate("BASE", certificate);

    EXPECT_EQ(result, ClientError::CLIENT_ERROR_NOT_READY);
    EXPECT_EQ(certificate, "old");
    EXPECT_EQ(sleeps_.size(), 5u);
    EXPECT_EQ(log.Count(LogLevel::kWarning, "typeidaccess service isn't ready, wait for 1 s"), 5u);
    EXPECT_EQ(log.Count(LogLevel::kError,
                        "zelk_get_certificate() Error! typeidaccess service isn't ready"),
              1u);
}

TEST_F(ClientTest, CertificateStatusesMapThroughTheTypeIdTable) {
    sut_.init();
    ON_CALL(*typeId_, IsReady).WillByDefault(Return(true));
    EXPECT_CALL(*typeId_, zelk_get_certificate)
        .WillOnce(Return(20))
        .WillOnce(Return(102))
        .WillOnce(Return(50));
    std::string certificate;

    EXPECT_EQ(sut_.zelk_get_certificate("ZELK", certificate),
              ClientError::CLIENT_ERROR_TYPEID_ACCESS);
    EXPECT_EQ(sut_.zelk_get_certificate("base", certificate), ClientError::CLIENT_ERROR_PARAMETER);
    EXPECT_EQ(sut_.zelk_get_certificate("BASE", certificate), ClientError::CLIENT_ERROR_ZELK);
    EXPECT_TRUE(sleeps_.empty());
}

TEST_F(ClientTest, EcuIdentityNeedsNoReadinessAndPartNumberNoServiceAtAll) {
    std::string partNumber;
    // Before init(): no accessor exists, the part number is still there.
    EXPECT_EQ(sut_.ecu_get_part_number(partNumber), ClientError::CLIENT_OK);
    EXPECT_EQ(partNumber, "V04007000TB");

    sut_.init();
    EXPECT_CALL(*uds_, IsReady).Times(0);
    EXPECT_CALL(*uds_, ecu_get_part_number).Times(0);
    EXPECT_CALL(*uds_, ecu_get_diagnostic_id)
        .WillOnce(DoAll(SetArgReferee<0>(std::string("C003")), Return(100)));
    EXPECT_CALL(*uds_, ecu_get_tesmo_id_string).WillOnce(Return(102)).WillOnce(Return(101));
    std::string text;

    EXPECT_EQ(sut_.ecu_get_diagnostic_id(text), ClientError::CLIENT_OK);
    EXPECT_EQ(text, "C003");
    EXPECT_EQ(sut_.ecu_get_tesmo_id_string(text), ClientError::CLIENT_ERROR_ECU_DATA);
    EXPECT_EQ(sut_.ecu_get_tesmo_id_string(text), ClientError::CLIENT_ERROR_NOT_READY);
}

std::atomic<int> signalsSeen{0};

TEST(MonotonicSleepTest, SignalsDuringTheSleepDoNotEndItEarly) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++signalsSeen; };
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the sleep sees EINTR
    // Left installed: a signal still in flight after the test must not end the process.
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
    const pthread_t sleeper = ::pthread_self();
    std::atomic<bool> done{false};
    std::thread interrupter([&] {
        while (!done) {
            ::pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    const auto start = std::chrono::steady_clock::now();

    MonotonicSleep(std::chrono::seconds(1));

    const auto elapsed = std::chrono::steady_clock::now() - start;
    done = true;
    interrupter.join();
    EXPECT_GE(elapsed, std::chrono::seconds(1));
    EXPECT_GE(signalsSeen.load(), 1);
}

}  // namespace
}  // namespace qervo::tee
