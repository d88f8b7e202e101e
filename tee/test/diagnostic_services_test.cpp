#include "tee/diagnostic_services.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "ara/com/com_error_domain.hpp"
#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"

namespace qervo::tee {
namespace {

using csc_logging::LogCapture;
using csc_logging::LogLevel;
using ::testing::StrictMock;
using zelk::interfaces::diagservices::DiagServicesErrc;
using zelk::interfaces::diagservices::MakeApplicationError;
namespace diag = zelk::interfaces::diagservices;
using Bytes = std::vector<std::uint8_t>;

class DiagnosticServicesTest : public ::testing::Test {
protected:
    DiagnosticServicesTest() { sut_.Initialize(); }

    std::shared_ptr<StrictMock<MockDiagServicesProxy>> proxy_ =
        std::make_shared<StrictMock<MockDiagServicesProxy>>();
    FakeDiscovery<DiagnosticServices::Proxy> discovery_{proxy_};
    DiagnosticServices sut_{discovery_.Binding()};
};

TEST(DiagnosticServicesLifetimeTest, ReadinessFollowsTheSearchThatEndsWithTheAccessor) {
    ExpectReadinessFollowsTheSearch<DiagnosticServices, MockDiagServicesProxy>(
        "DiagnosticServices::Initialize()", "DiagnosticServices");
}

TEST_F(DiagnosticServicesTest, WithoutTheServiceEveryCallReturns101SilentlyAndTouchesNothing) {
    LogCapture log;
    Bytes output{9};
    std::uint16_t counter = 7;

    EXPECT_EQ(sut_.zelk_handle_dlc(Bytes{1}), 101);
    EXPECT_EQ(sut_.zelk_get_identity_hash(output, Bytes(16)), 101);
    EXPECT_EQ(sut_.zelk_get_pss_hash(output), 101);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), 101);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(output), 101);

    EXPECT_EQ(output, Bytes{9});
    EXPECT_EQ(counter, 7);
    EXPECT_TRUE(log.Texts().empty());
}

TEST_F(DiagnosticServicesTest, ChallengeOfAnyLengthButSixteenGives103AndNoCall) {
    discovery_.Appear();
    LogCapture log;
    Bytes identity{1, 2, 3};

    for (const std::size_t length : {0, 15, 17}) {
        EXPECT_EQ(sut_.zelk_get_identity_hash(identity, Bytes(length, 0xaa)), 103) << length;
    }

    EXPECT_EQ(identity, (Bytes{1, 2, 3}));
    EXPECT_EQ(log.Count(LogLevel::kError,
                        "DiagnosticServices: zelk_get_identity_hash() Error! challenge parameter "
                        "size isn't 16"),
              3u);
}

TEST_F(DiagnosticServicesTest, CallsCopyTheOutputOrReturnTheApplicationErrorCodeLeavingItAlone) {
    discovery_.Appear();
    LogCapture log;
    DiagnosticServices::Proxy::Hash challenge{};
    std::iota(challenge.begin(), challenge.end(), 0xf0);
    diag::GetIdentityHashOutput identityOut{};
    identityOut.identityHash.fill(0x11);
    diag::GetPssHashOutput pssOut{};
    pssOut.pssHash.fill(0x22);
    diag::GetZelkVINOutput vinOut{};
    vinOut.vin.fill('V');
    const Bytes dlc{0xde, 0xad};
    EXPECT_CALL(*proxy_, CallHandleDlc(dlc))
        .WillOnce(Answers())
        .WillOnce(Raises<void>(MakeApplicationError(DiagServicesErrc::ZELK_ERROR_DLC_INVALID_MAC)));
    EXPECT_CALL(*proxy_, CallGetIdentityHash(challenge))
        .WillOnce(Answers(identityOut))
        .WillOnce(Raises<diag::GetIdentityHashOutput>(
            MakeApplicationError(DiagServicesErrc::ZELK_ERROR_GENERAL)));
    EXPECT_CALL(*proxy_, CallGetPssHash())
        .WillOnce(Answers(pssOut))
        .WillOnce(Raises<diag::GetPssHashOutput>(
            MakeApplicationError(DiagServicesErrc::ZELK_ERROR_BUSY)));
    EXPECT_CALL(*proxy_, CallGetZelkVIN())
        .WillOnce(Answers(vinOut))
        .WillOnce(Raises<diag::GetZelkVINOutput>(
            MakeApplicationError(DiagServicesErrc::ZELK_ERROR_CRYPTO_E_KEY_SIZE_MISMATCH)));
    EXPECT_CALL(*proxy_, CallGetTrainingCounter())
        .WillOnce(Answers(diag::GetTrainingCounterOutput{65535}))
        .WillOnce(Raises<diag::GetTrainingCounterOutput>(
            MakeApplicationError(DiagServicesErrc::ZELK_ERROR_NVM_WRITE_FAILED)));
    const Bytes challengeBytes(challenge.begin(), challenge.end());
    Bytes identity(40, 0xee);
    Bytes pss;
    Bytes vin(3, 0xee);
    std::uint16_t counter = 0;

    EXPECT_EQ(sut_.zelk_handle_dlc(dlc), 100);
    EXPECT_EQ(sut_.zelk_handle_dlc(dlc), 30);
    EXPECT_EQ(sut_.zelk_get_identity_hash(identity, challengeBytes), 100);
    EXPECT_EQ(sut_.zelk_get_identity_hash(identity, challengeBytes), 1);
    EXPECT_EQ(sut_.zelk_get_pss_hash(pss), 100);
    EXPECT_EQ(sut_.zelk_get_pss_hash(pss), 23);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(vin), 100);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(vin), 54);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), 100);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), 28);

    EXPECT_EQ(identity, Bytes(16, 0x11));
    EXPECT_EQ(pss, Bytes(16, 0x22));
    EXPECT_EQ(vin, Bytes(17, 'V'));
    EXPECT_EQ(counter, 65535);
    EXPECT_TRUE(log.Contains(LogLevel::kError,
                             "DiagnosticServices: zelk_handle_dlc() "
                             "exception=DiagServices::ZELK_ERROR_DLC_INVALID_MAC::30"));
}

TEST_F(DiagnosticServicesTest, FailuresOtherThanApplicationErrorsPropagate) {
    discovery_.Appear();
    EXPECT_CALL(*proxy_, CallGetPssHash())
        .WillOnce(Raises<diag::GetPssHashOutput>(
            ara::com::ComException(ara::com::ComErrc::kCommunicationLinkError, "gone")));
    Bytes pss;

    EXPECT_THROW(sut_.zelk_get_pss_hash(pss), ara::com::ComException);
}

}  // namespace
}  // namespace qervo::tee
