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
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::SetArgReferee;
using Bytes = std::vector<std::uint8_t>;
using E = ClientError;

/// A client over mock accessors whose sleep only records.
class ClientTest : public ::testing::Test {
protected:
    std::shared_ptr<NiceMock<MockDiagnosticServices>> diag_ =
        std::make_shared<NiceMock<MockDiagnosticServices>>();
    std::shared_ptr<NiceMock<MockTypeidAccessService>> typeId_ =
        std::make_shared<NiceMock<MockTypeidAccessService>>();
    std::shared_ptr<NiceMock<MockGenericUdsServices>> uds_ =
        std::make_shared<NiceMock<MockGenericUdsServices>>();
    std::vector<std::chrono::seconds> sleeps_;
    ZELKOnlineUpdateClient sut_{
        {[this] { return diag_; }, [this] { return typeId_; }, [this] { return uds_; },
         [this](std::chrono::seconds duration) { sleeps_.push_back(duration); }}};
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
        {"diag ok", diag, 100, E::CLIENT_OK},
        {"diag not available", diag, 101, E::CLIENT_ERROR_NOT_READY},
        {"diag parameter", diag, 103, E::CLIENT_ERROR_PARAMETER},
        {"diag 102", diag, 102, E::CLIENT_ERROR_TYPEID_ACCESS},
        {"diag first listed", diag, 1, E::CLIENT_ERROR_ZELK},
        {"diag last listed", diag, 54, E::CLIENT_ERROR_ZELK},
        {"diag gap", diag, 22, E::CLIENT_OK},
        {"diag above", diag, 255, E::CLIENT_OK},
        {"typeid not available", typeId, 101, E::CLIENT_ERROR_NOT_READY},
        {"typeid 102", typeId, 102, E::CLIENT_ERROR_PARAMETER},
        {"typeid first listed", typeId, 2, E::CLIENT_ERROR_TYPEID_ACCESS},
        {"typeid last listed", typeId, 27, E::CLIENT_ERROR_TYPEID_ACCESS},
        {"typeid zelk", typeId, 51, E::CLIENT_ERROR_ZELK},
        {"typeid gap", typeId, 24, E::CLIENT_OK},
        {"typeid 1", typeId, 1, E::CLIENT_OK},
        {"uds not available", uds, 101, E::CLIENT_ERROR_NOT_READY},
        {"uds 102", uds, 102, E::CLIENT_ERROR_ECU_DATA},
        {"uds 103", uds, 103, E::CLIENT_OK},
    };
    for (const auto& row : rows) {
        EXPECT_EQ((sut_.*row.mapping)(row.status), row.expected) << row.name;
    }
}

/// An accessor that records when it is made, started and released.
template <typename Mock>
struct Recorded : NiceMock<Mock> {
    Recorded(std::vector<std::string>& events, std::string name)
        : events_(events), name_(std::move(name)) {
        events_.push_back("make " + name_);
        ON_CALL(*this, Initialize).WillByDefault([this] { events_.push_back("start " + name_); });
    }
    ~Recorded() override { events_.push_back("release " + name_); }
    std::vector<std::string>& events_;
    std::string name_;
};

TEST(ClientLifetimeTest, AccessorsAreMadeAndStartedInTurnAndReleasedInReverse) {
    std::vector<std::string> events;
    {
        ZELKOnlineUpdateClient sut(
            {[&] { return std::make_shared<Recorded<MockDiagnosticServices>>(events, "diag"); },
             [&] { return std::make_shared<Recorded<MockTypeidAccessService>>(events, "typeid"); },
             [&] { return std::make_shared<Recorded<MockGenericUdsServices>>(events, "uds"); },
             [](std::chrono::seconds) {}});
        sut.init();
    }

    EXPECT_EQ(events, (std::vector<std::string>{"make diag", "start diag", "make typeid",
                                                "start typeid", "make uds", "start uds",
                                                "release uds", "release typeid", "release diag"}));
}

TEST_F(ClientTest, CallsWithoutTheirServiceReturnNotReadyAtOnce) {
    LogCapture log;
    std::string text;
    Bytes bytes;
    std::uint16_t counter = 0;

    EXPECT_EQ(sut_.ecu_get_diagnostic_id(text), E::CLIENT_ERROR_NOT_READY);
    EXPECT_EQ(sut_.ecu_get_tesmo_id_string(text), E::CLIENT_ERROR_NOT_READY);
    for (const bool initialised : {false, true}) {
        EXPECT_EQ(sut_.zelk_handle_dlc(Bytes{1, 2}), E::CLIENT_ERROR_NOT_READY) << initialised;
        EXPECT_EQ(sut_.zelk_get_identity_hash(bytes, Bytes(16)), E::CLIENT_ERROR_NOT_READY);
        EXPECT_EQ(sut_.zelk_get_pss_hash(bytes), E::CLIENT_ERROR_NOT_READY);
        EXPECT_EQ(sut_.zelk_get_training_counter(counter), E::CLIENT_ERROR_NOT_READY);
        EXPECT_EQ(sut_.zelk_get_zelk_vin(bytes), E::CLIENT_ERROR_NOT_READY);
        sut_.init();
    }

    for (const char* line : {"ecu_get_diagnostic_id() Error! genericuds isn't initialised",
                             "ecu_get_tesmo_id_string() Error! genericuds isn't initialised"}) {
        EXPECT_EQ(log.Count(LogLevel::kError, line), 1u) << line;
    }
    for (const char* operation : {"zelk_handle_dlc", "zelk_get_identity_hash", "zelk_get_pss_hash",
                                  "zelk_get_training_counter", "zelk_get_zelk_vin"}) {
        EXPECT_EQ(log.Count(LogLevel::kError,
                            std::string(operation) + "() Error! diagservices isn't ready"),
                  2u)
            << operation;
    }
    EXPECT_TRUE(sleeps_.empty());
}

TEST_F(ClientTest, CallsForwardTheirArgumentsAndMapTheStatusThroughTheirAccessorsTable) {
    std::string text;
    EXPECT_EQ(sut_.ecu_get_part_number(text), E::CLIENT_OK);
    EXPECT_EQ(text, "V04007000TB");
    sut_.init();
    ON_CALL(*diag_, IsReady).WillByDefault(Return(true));
    ON_CALL(*typeId_, IsReady).WillByDefault(Return(true));
    const Bytes dlc{0x00, 0xff, 0x10};
    const Bytes challenge(16, 0xab);
    const std::string der("\x30\x82", 2);
    // 102 means something else to each accessor.
    EXPECT_CALL(*diag_, zelk_handle_dlc(dlc)).WillOnce(Return(102));
    EXPECT_CALL(*diag_, zelk_get_identity_hash(_, challenge))
        .WillOnce(DoAll(SetArgReferee<0>(Bytes(16, 0x5a)), Return(100)));
    EXPECT_CALL(*diag_, zelk_get_pss_hash(_)).WillOnce(Return(103));
    EXPECT_CALL(*diag_, zelk_get_training_counter(_))
        .WillOnce(DoAll(SetArgReferee<0>(std::uint16_t{513}), Return(22)));
    EXPECT_CALL(*diag_, zelk_get_zelk_vin(_)).WillOnce(Return(30));
    EXPECT_CALL(*typeId_, zelk_get_certificate("ZELK", _))
        .WillOnce(DoAll(SetArgReferee<1>(der), Return(100)));
    EXPECT_CALL(*typeId_, zelk_get_certificate("base", _)).WillOnce(Return(102));
    EXPECT_CALL(*uds_, ecu_get_diagnostic_id)
        .WillOnce(DoAll(SetArgReferee<0>(std::string("C003")), Return(100)));
    EXPECT_CALL(*uds_, ecu_get_tesmo_id_string).WillOnce(Return(102));
    EXPECT_CALL(*uds_, ecu_get_part_number).Times(0);
    Bytes identity;
    Bytes bytes;
    std::uint16_t counter = 0;
    std::string certificate;

    EXPECT_EQ(sut_.zelk_handle_dlc(dlc), E::CLIENT_ERROR_TYPEID_ACCESS);
    EXPECT_EQ(sut_.zelk_get_identity_hash(identity, challenge), E::CLIENT_OK);
    EXPECT_EQ(identity, Bytes(16, 0x5a));
    EXPECT_EQ(sut_.zelk_get_pss_hash(bytes), E::CLIENT_ERROR_PARAMETER);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), E::CLIENT_OK);
    EXPECT_EQ(counter, 513);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(bytes), E::CLIENT_ERROR_ZELK);
    EXPECT_EQ(sut_.zelk_get_certificate("ZELK", certificate), E::CLIENT_OK);
    EXPECT_EQ(certificate, der);
    EXPECT_EQ(sut_.zelk_get_certificate("base", certificate), E::CLIENT_ERROR_PARAMETER);
    EXPECT_EQ(sut_.ecu_get_diagnostic_id(text), E::CLIENT_OK);
    EXPECT_EQ(text, "C003");
    EXPECT_EQ(sut_.ecu_get_tesmo_id_string(text), E::CLIENT_ERROR_ECU_DATA);
    EXPECT_EQ(sut_.ecu_get_part_number(text), E::CLIENT_OK);
    EXPECT_EQ(text, "V04007000TB");
    EXPECT_TRUE(sleeps_.empty());
}

TEST_F(ClientTest, CertificateWaitsASecondAtATimeForTheTypeIdServiceFiveTimesAtMost) {
    sut_.init();
    ON_CALL(*typeId_, zelk_get_certificate).WillByDefault(Return(100));
    const struct {
        int failedChecks;
        std::size_t waits;
        ClientError expected;
    } rows[] = {{0, 0, E::CLIENT_OK}, {2, 2, E::CLIENT_OK}, {6, 5, E::CLIENT_ERROR_NOT_READY}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.failedChecks);
        LogCapture log;
        sleeps_.clear();
        int checks = 0;
        ON_CALL(*typeId_, IsReady).WillByDefault([&] { return ++checks > row.failedChecks; });
        std::string certificate;

        EXPECT_EQ(sut_.zelk_get_certificate("BASE", certificate), row.expected);

        EXPECT_EQ(sleeps_, std::vector<std::chrono::seconds>(row.waits, std::chrono::seconds(1)));
        EXPECT_EQ(log.Count(LogLevel::kWarning,
                            "zelk_get_certificate() Warning! typeidaccess service isn't ready, "
                            "wait for 1 s"),
                  row.waits);
        EXPECT_EQ(log.Count(LogLevel::kError,
                            "zelk_get_certificate() Error! typeidaccess service isn't ready"),
                  row.expected == E::CLIENT_OK ? 0u : 1u);
    }
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
