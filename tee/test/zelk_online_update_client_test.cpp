#include "tee/zelk_online_update_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <numeric>
#include <set>
#include <thread>

#include "ara/com/com_error_domain.hpp"
#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"
#include "tee/diagnostic_services.hpp"
#include "tee/generic_uds_services.hpp"
#include "tee/monotonic_sleep.hpp"
#include "tee/typeid_access_service.hpp"
#include "test_support/temporary_directory.hpp"

namespace qervo::tee {
namespace {

using csc_logging::LogCapture;
using csc_logging::LogLevel;
using ::testing::StrictMock;
using Bytes = std::vector<std::uint8_t>;
using E = ClientError;

/// The client over its real accessors, fake discoveries, mock proxies and a recording sleep.
class ClientTest : public ::testing::Test {
protected:
    ZELKOnlineUpdateClient::Dependencies Dependencies() {
        return {
            [this] { return std::make_shared<DiagnosticServices>(diag_.Binding()); },
            [this] { return std::make_shared<TypeidAccessService>(typeId_.Binding()); },
            [this] { return std::make_shared<GenericUdsServices>(tesmoIdPath_, uds_.Binding()); },
            [this](std::chrono::seconds duration) {
                sleeps_.push_back(duration);
                onSleep_();
            }};
    }

    std::shared_ptr<StrictMock<MockDiagServicesProxy>> diagProxy_ =
        std::make_shared<StrictMock<MockDiagServicesProxy>>();
    std::shared_ptr<StrictMock<MockTypeIdAccessProxy>> typeIdProxy_ =
        std::make_shared<StrictMock<MockTypeIdAccessProxy>>();
    std::vector<std::string> journal_;
    FakeDiscovery<DiagnosticServices::Proxy> diag_{diagProxy_, journal_, "diag"};
    FakeDiscovery<TypeidAccessService::Proxy> typeId_{typeIdProxy_, journal_, "typeid"};
    FakeDiscovery<GenericUdsServices::Proxy> uds_{nullptr, journal_, "uds"};
    kelvane::testing::TemporaryDirectory directory_;
    std::string tesmoIdPath_ = directory_.File("tesmo.bin");
    std::vector<std::chrono::seconds> sleeps_;
    std::function<void()> onSleep_ = [] {};
    ZELKOnlineUpdateClient sut_{Dependencies()};
};

// Every status, as the three tables give it: a dropped or added case anywhere fails.
TEST_F(ClientTest, EveryStatusMapsAsItsAccessorsTableSaysAndUnlistedOnesCountAsSuccess) {
    const std::set<int> diagErrors = {1,  21, 23, 24, 28, 29, 30, 31, 32, 33,
                                      34, 35, 36, 40, 41, 42, 50, 51, 53, 54};
    const std::set<int> typeIdStoreErrors = {2, 20, 21, 22, 23, 27};
    for (int status = 0; status <= 255; ++status) {
        const auto s = static_cast<std::uint8_t>(status);
        const ClientError diag = status == 101                   ? E::CLIENT_ERROR_NOT_READY
                                 : status == 102                 ? E::CLIENT_ERROR_TYPEID_ACCESS
                                 : status == 103                 ? E::CLIENT_ERROR_PARAMETER
                                 : diagErrors.count(status) != 0 ? E::CLIENT_ERROR_ZELK
                                                                 : E::CLIENT_OK;
        const ClientError typeId = status == 101   ? E::CLIENT_ERROR_NOT_READY
                                   : status == 102 ? E::CLIENT_ERROR_PARAMETER
                                   : typeIdStoreErrors.count(status) != 0
                                       ? E::CLIENT_ERROR_TYPEID_ACCESS
                                   : status == 50 || status == 51 ? E::CLIENT_ERROR_ZELK
                                                                  : E::CLIENT_OK;
        const ClientError uds = status == 101   ? E::CLIENT_ERROR_NOT_READY
                                : status == 102 ? E::CLIENT_ERROR_ECU_DATA
                                                : E::CLIENT_OK;
        EXPECT_EQ(sut_.diagServicesErrorToClientError(s), diag) << status;
        EXPECT_EQ(sut_.typeidAccessServicesErrorToClientError(s), typeId) << status;
        EXPECT_EQ(sut_.getericUdsAccessErrorToClientError(s), uds) << status;
    }
}

TEST_F(ClientTest, EveryInitSearchesAnewInTurnAndDestructionEndsTheSearchesInReverse) {
    {
        ZELKOnlineUpdateClient sut(Dependencies());
        sut.init();
        sut.init();
    }

    EXPECT_EQ(journal_,
              (std::vector<std::string>{"search diag", "search typeid", "search uds", "stop diag",
                                        "search diag", "stop typeid", "search typeid", "stop uds",
                                        "search uds", "stop uds", "stop typeid", "stop diag"}));
}

TEST_F(ClientTest, KeyManagementCallsNeedTheServiceThenCopyItsAnswerOrMapItsError) {
    LogCapture log;
    DiagnosticServices::Proxy::Hash challenge{};
    std::iota(challenge.begin(), challenge.end(), 0xf0);
    const Bytes challengeBytes(challenge.begin(), challenge.end());
    const Bytes dlc{0xde, 0xad};
    Bytes identity(40, 0xee);
    Bytes pss;
    Bytes vin(3, 0xee);
    std::uint16_t counter = 0;
    // Each call, by the name its error lines give it.
    const std::pair<std::string, std::function<ClientError()>> calls[] = {
        {"zelk_handle_dlc", [&] { return sut_.zelk_handle_dlc(dlc); }},
        {"zelk_get_identity_hash",
         [&] { return sut_.zelk_get_identity_hash(identity, challengeBytes); }},
        {"zelk_get_pss_hash", [&] { return sut_.zelk_get_pss_hash(pss); }},
        {"zelk_get_training_counter", [&] { return sut_.zelk_get_training_counter(counter); }},
        {"zelk_get_zelk_vin", [&] { return sut_.zelk_get_zelk_vin(vin); }}};
    for (const bool initialised : {false, true}) {
        for (const auto& [name, call] : calls) {
            EXPECT_EQ(call(), E::CLIENT_ERROR_NOT_READY) << name << " " << initialised;
        }
        sut_.init();
    }
    diag_.Appear();
    diag::GetIdentityHashOutput identityOut{};
    std::iota(identityOut.identityHash.begin(), identityOut.identityHash.end(), 0x11);
    diag::GetPssHashOutput pssOut{};
    std::iota(pssOut.pssHash.begin(), pssOut.pssHash.end(), 0x22);
    diag::GetZelkVINOutput vinOut{};
    std::copy_n("WVWZZZ1JZ3W386752", vinOut.vin.size(), vinOut.vin.begin());
    using Errc = diag::DiagServicesErrc;
    const auto error = [](Errc errc) { return diag::MakeApplicationError(errc); };
    EXPECT_CALL(*diagProxy_, CallHandleDlc(dlc))
        .WillOnce(Answers())
        .WillOnce(Raises<void>(error(Errc::ZELK_ERROR_DLC_INVALID_MAC)));
    EXPECT_CALL(*diagProxy_, CallGetIdentityHash(challenge))
        .WillOnce(Answers(identityOut))
        .WillOnce(Raises<diag::GetIdentityHashOutput>(error(Errc::ZELK_ERROR_GENERAL)));
    EXPECT_CALL(*diagProxy_, CallGetPssHash())
        .WillOnce(Answers(pssOut))
        .WillOnce(Raises<diag::GetPssHashOutput>(error(Errc::ZELK_ERROR_BUSY)))
        .WillOnce(Raises<diag::GetPssHashOutput>(
            ara::com::ComException(ara::com::ComErrc::kCommunicationLinkError, "gone")));
    EXPECT_CALL(*diagProxy_, CallGetZelkVIN())
        .WillOnce(Answers(vinOut))
        .WillOnce(
            Raises<diag::GetZelkVINOutput>(error(Errc::ZELK_ERROR_CRYPTO_E_KEY_SIZE_MISMATCH)));
    EXPECT_CALL(*diagProxy_, CallGetTrainingCounter())
        .WillOnce(Answers(diag::GetTrainingCounterOutput{65535}))
        .WillOnce(Raises<diag::GetTrainingCounterOutput>(error(Errc::ZELK_ERROR_NVM_WRITE_FAILED)));

    for (const auto& [name, call] : calls) {
        EXPECT_EQ(call(), E::CLIENT_OK) << name;
        EXPECT_EQ(call(), E::CLIENT_ERROR_ZELK) << name;
        const std::string notReady = name + "() Error! diagservices isn't ready";
        EXPECT_EQ(log.Count(LogLevel::kError, notReady), 2u) << name;
    }
    for (const std::size_t length : {0, 15, 17}) {
        EXPECT_EQ(sut_.zelk_get_identity_hash(identity, Bytes(length)), E::CLIENT_ERROR_PARAMETER);
    }
    EXPECT_THROW(sut_.zelk_get_pss_hash(pss), ara::com::ComException);

    EXPECT_EQ(identity, Bytes(identityOut.identityHash.begin(), identityOut.identityHash.end()));
    EXPECT_EQ(pss, Bytes(pssOut.pssHash.begin(), pssOut.pssHash.end()));
    EXPECT_EQ(vin, Bytes(vinOut.vin.begin(), vinOut.vin.end()));
    EXPECT_EQ(counter, 65535);
    EXPECT_EQ(log.Count(LogLevel::kError,
                        "DiagnosticServices: zelk_get_identity_hash() Error! challenge parameter "
                        "size isn't 16"),
              3u);
    EXPECT_EQ(log.Count(LogLevel::kError,
                        "DiagnosticServices: zelk_handle_dlc() "
                        "exception=DiagServices::ZELK_ERROR_DLC_INVALID_MAC::30"),
              1u);
    EXPECT_TRUE(sleeps_.empty());
}

TEST_F(ClientTest, CertificateIsReadByItsTypeIdWaitingASecondAtATimeFiveTimesAtMost) {
    sut_.init();
    typeId_.Appear();
    LogCapture log;
    const Bytes der{0x30, 0x82, 0x00, 0x0a, 0xff, 0x00, 0x0d};
    EXPECT_CALL(*typeIdProxy_, CallGetCertificate(11))
        .WillOnce(Answers(typeid_access::GetCertificateOutput{der}))
        .WillRepeatedly(Answers(typeid_access::GetCertificateOutput{}));
    EXPECT_CALL(*typeIdProxy_, CallGetCertificate(13))
        .WillOnce(Raises<typeid_access::GetCertificateOutput>(typeid_access::MakeApplicationError(
            typeid_access::TypeIdAccessErrc::ZELK_ERROR_INVALID_TYPEID)));
    std::string certificate;

    EXPECT_EQ(sut_.zelk_get_certificate("BASE", certificate), E::CLIENT_OK);
    EXPECT_EQ(sut_.zelk_get_certificate("ZELK", certificate), E::CLIENT_ERROR_TYPEID_ACCESS);
    for (const char* unknown : {"base", "", "BASE ", "ROOT", "zelk"}) {
        EXPECT_EQ(sut_.zelk_get_certificate(unknown, certificate), E::CLIENT_ERROR_PARAMETER)
            << unknown;
    }
    EXPECT_EQ(certificate, std::string(der.begin(), der.end()));
    EXPECT_TRUE(sleeps_.empty());
    EXPECT_TRUE(log.Contains(
        "zelk_get_certificate() Exception=TypeIdAccess::ZELK_ERROR_INVALID_TYPEID::20"));

    const struct {
        int appearsAfterWaits;
        std::size_t waits;
        ClientError expected;
    } rows[] = {{2, 2, E::CLIENT_OK}, {5, 5, E::CLIENT_OK}, {-1, 5, E::CLIENT_ERROR_NOT_READY}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.appearsAfterWaits);
        LogCapture rowLog;
        sleeps_.clear();
        typeId_.Disappear();
        onSleep_ = [&] {
            if (static_cast<int>(sleeps_.size()) == row.appearsAfterWaits) {
                typeId_.Appear();
            }
        };
        certificate = "old";

        EXPECT_EQ(sut_.zelk_get_certificate("BASE", certificate), row.expected);

        EXPECT_EQ(certificate, row.expected == E::CLIENT_OK ? "" : "old");
        EXPECT_EQ(sleeps_, std::vector<std::chrono::seconds>(row.waits, std::chrono::seconds(1)));
        EXPECT_EQ(rowLog.Count(LogLevel::kWarning,
                               "zelk_get_certificate() Warning! typeidaccess service isn't ready, "
                               "wait for 1 s"),
                  row.waits);
        EXPECT_EQ(rowLog.Count(LogLevel::kError,
                               "zelk_get_certificate() Error! typeidaccess service isn't ready"),
                  row.expected == E::CLIENT_OK ? 0u : 1u);
    }
}

TEST_F(ClientTest, EcuIdentityIsTheFileByteForByteAndTwoFixedValuesWithoutAnyService) {
    LogCapture log;
    std::string text;
    EXPECT_EQ(sut_.ecu_get_diagnostic_id(text), E::CLIENT_ERROR_NOT_READY);
    EXPECT_EQ(sut_.ecu_get_tesmo_id_string(text), E::CLIENT_ERROR_NOT_READY);
    EXPECT_EQ(sut_.ecu_get_part_number(text), E::CLIENT_OK);
    EXPECT_EQ(text, "V04007000TB");
    for (const std::string& unreadable : {std::string(TESMO_ID_PATH), directory_.Path()}) {
        tesmoIdPath_ = unreadable;
        sut_.init();

        EXPECT_EQ(sut_.ecu_get_tesmo_id_string(text), E::CLIENT_ERROR_ECU_DATA);
        EXPECT_EQ(text, "V04007000TB");
        EXPECT_EQ(log.Count(LogLevel::kError,
                            "ecu_get_tesmo_id_string() Error! can't open file " + unreadable),
                  1u);
    }
    for (const std::string& content :
         {std::string("\x00\x01 \r\n\xff\x00", 7), std::string(), std::string(100000, 'x')}) {
        tesmoIdPath_ = directory_.Write("tesmo.bin", content);
        sut_.init();

        EXPECT_EQ(sut_.ecu_get_tesmo_id_string(text), E::CLIENT_OK);
        EXPECT_EQ(text, content) << content.size();
    }
    EXPECT_EQ(sut_.ecu_get_diagnostic_id(text), E::CLIENT_OK);
    EXPECT_EQ(text, "C003");
    for (const char* line : {"ecu_get_diagnostic_id() Error! genericuds isn't initialised",
                             "ecu_get_tesmo_id_string() Error! genericuds isn't initialised"}) {
        EXPECT_EQ(log.Count(LogLevel::kError, line), 1u) << line;
    }
}

std::atomic<int> signalsSeen{0};

TEST(MonotonicSleepTest, SignalsDuringTheSleepDoNotEndItEarly) {
    struct sigaction action {};  // no SA_RESTART: the sleep sees EINTR
    action.sa_handler = [](int) { ++signalsSeen; };
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
