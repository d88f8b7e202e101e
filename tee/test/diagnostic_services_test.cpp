#include "tee/diagnostic_services.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ara/com/com_error_domain.hpp"
#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"

namespace qervo::tee {
namespace {

using csc_logging::LogCapture;
using csc_logging::LogLevel;
using ::testing::_;
using ::testing::NiceMock;
using ::testing::StrictMock;
using zelk::interfaces::diagservices::DiagServicesErrc;
using zelk::interfaces::diagservices::MakeApplicationError;
namespace diag = zelk::interfaces::diagservices;
using Bytes = std::vector<std::uint8_t>;

template <typename Output>
ara::core::Future<Output> Raising(DiagServicesErrc errc) {
    return ara::core::MakeReadyFuture([errc]() -> Output { throw MakeApplicationError(errc); });
}

class DiagnosticServicesTest : public ::testing::Test {
protected:
    DiagnosticServicesTest() { sut_.Initialize(); }

    std::shared_ptr<StrictMock<MockDiagServicesProxy>> proxy_ =
        std::make_shared<StrictMock<MockDiagServicesProxy>>();
    FakeDiscovery<DiagnosticServices::Proxy> discovery_{proxy_};
    DiagnosticServices sut_{discovery_.Binding()};
};

TEST_F(DiagnosticServicesTest, ReadinessFollowsTheServiceAndCallsWithoutItReturn101Silently) {
    LogCapture log;
    Bytes output{9};
    std::uint16_t counter = 7;

    EXPECT_FALSE(sut_.IsReady());
    EXPECT_EQ(sut_.zelk_get_pss_hash(output), 101);
    discovery_.Appear();
    EXPECT_TRUE(sut_.IsReady());
    discovery_.Disappear();
    EXPECT_FALSE(sut_.IsReady());
    EXPECT_EQ(sut_.zelk_handle_dlc(Bytes{1}), 101);
    EXPECT_EQ(sut_.zelk_get_identity_hash(output, Bytes(16)), 101);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), 101);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(output), 101);

    EXPECT_EQ(output, Bytes{9});
    EXPECT_EQ(counter, 7);
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"DiagnosticServices service found",
                                                     "DiagnosticServices service stopped"}));
}

TEST_F(DiagnosticServicesTest, ChallengeOfAnyLengthButSixteenGives103AndNoCall) {
    discovery_.Appear();
    LogCapture log;
    Bytes identity{1, 2, 3};

    EXPECT_EQ(sut_.zelk_get_identity_hash(identity, Bytes(15, 0xaa)), 103);
    EXPECT_EQ(sut_.zelk_get_identity_hash(identity, Bytes(17, 0xaa)), 103);
    EXPECT_EQ(sut_.zelk_get_identity_hash(identity, Bytes{}), 103);

    EXPECT_EQ(identity, (Bytes{1, 2, 3}));
    EXPECT_EQ(log.Count(LogLevel::kError,
                        "DiagnosticServices: zelk_get_identity_hash() Error! challenge parameter "
                        "size isn't 16"),
              3u);
}

TEST_F(DiagnosticServicesTest, OutputsAreResizedToTheirFixedLengthsAndCopied) {
    discovery_.Appear();
    DiagnosticServices::Proxy::Hash challenge{};
    for (std::size_t i = 0; i < challenge.size(); ++i) {
        challenge[i] = static_cast<std::uint8_t>(0xf0 + i);
    }
    diag::GetIdentityHashOutput identityOut{};
    identityOut.identityHash.fill(0x11);
    diag::GetPssHashOutput pssOut{};
    pssOut.pssHash.fill(0x22);
    diag::GetZelkVINOutput vinOut{};
    vinOut.vin.fill('V');
    EXPECT_CALL(*proxy_, CallGetIdentityHash(challenge)).WillOnce([&](const auto&) {
        return ara::core::MakeReadyFuture([&] { return identityOut; });
    });
    EXPECT_CALL(*proxy_, CallGetPssHash()).WillOnce([&] {
        return ara::core::MakeReadyFuture([&] { return pssOut; });
    });
    EXPECT_CALL(*proxy_, CallGetZelkVIN()).WillOnce([&] {
        return ara::core::MakeReadyFuture([&] { return vinOut; });
    });
    EXPECT_CALL(*proxy_, CallGetTrainingCounter()).WillOnce([] {
        return ara::core::MakeReadyFuture([] { return diag::GetTrainingCounterOutput{65535}; });
    });
    Bytes identity(40, 0xee);
    Bytes pss;
    Bytes vin(3, 0xee);
    std::uint16_t counter = 0;

    EXPECT_EQ(sut_.zelk_get_identity_hash(identity, Bytes(challenge.begin(), challenge.end())),
              100);
    EXPECT_EQ(sut_.zelk_get_pss_hash(pss), 100);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(vin), 100);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), 100);

    EXPECT_EQ(identity, Bytes(16, 0x11));
    EXPECT_EQ(pss, Bytes(16, 0x22));
    EXPECT_EQ(vin, Bytes(17, 'V'));
    EXPECT_EQ(counter, 65535);
}

TEST_F(DiagnosticServicesTest, ApplicationErrorIsReturnedAsItsCodeAndLeavesTheOutputAlone) {
    discovery_.Appear();
    LogCapture log;
    const Bytes dlc{0xde, 0xad};
    EXPECT_CALL(*proxy_, CallHandleDlc(dlc)).WillOnce([](const auto&) {
        return Raising<void>(DiagServicesErrc::ZELK_ERROR_DLC_INVALID_MAC);
    });
    EXPECT_CALL(*proxy_, CallGetPssHash()).WillOnce([] {
        return Raising<diag::GetPssHashOutput>(DiagServicesErrc::ZELK_ERROR_BUSY);
    });
    EXPECT_CALL(*proxy_, CallGetZelkVIN()).WillOnce([] {
        return Raising<diag::GetZelkVINOutput>(
            DiagServicesErrc::ZELK_ERROR_CRYPTO_E_KEY_SIZE_MISMATCH);
    });
    EXPECT_CALL(*proxy_, CallGetTrainingCounter()).WillOnce([] {
        return Raising<diag::GetTrainingCounterOutput>(DiagServicesErrc::ZELK_ERROR_GENERAL);
    });
    Bytes pss{1, 2};
    Bytes vin{3};
    std::uint16_t counter = 42;

    EXPECT_EQ(sut_.zelk_handle_dlc(dlc), 30);
    EXPECT_EQ(sut_.zelk_get_pss_hash(pss), 23);
    EXPECT_EQ(sut_.zelk_get_zelk_vin(vin), 54);
    EXPECT_EQ(sut_.zelk_get_training_counter(counter), 1);

    EXPECT_EQ(pss, (Bytes{1, 2}));
    EXPECT_EQ(vin, Bytes{3});
    EXPECT_EQ(counter, 42);
    EXPECT_TRUE(log.Contains(LogLevel::kError,
                             "DiagnosticServices: zelk_handle_dlc() "
                             "exception=DiagServices::ZELK_ERROR_DLC_INVALID_MAC::30"));
    EXPECT_TRUE(
        log.Contains("DiagnosticServices: zelk_get_pss_hash() "
                     "exception=DiagServices::ZELK_ERROR_BUSY::23"));
}

TEST_F(DiagnosticServicesTest, FailuresOtherThanApplicationErrorsPropagate) {
    discovery_.Appear();
    EXPECT_CALL(*proxy_, CallGetPssHash()).WillOnce([] {
        return ara::core::MakeReadyFuture([]() -> diag::GetPssHashOutput {
            throw ara::com::ComException(ara::com::ComErrc::kCommunicationLinkError, "gone");
        });
    });
    Bytes pss;

    EXPECT_THROW(sut_.zelk_get_pss_hash(pss), ara::com::ComException);
}

TEST(DiagnosticServicesLifetimeTest, InitializeStartsOneSearchAndDestructionStopsIt) {
    auto proxy = std::make_shared<NiceMock<MockDiagServicesProxy>>();
    FakeDiscovery<DiagnosticServices::Proxy> discovery(proxy);
    LogCapture log;
    {
        DiagnosticServices sut(discovery.Binding());
        sut.Initialize();
        sut.Initialize();
        EXPECT_EQ(discovery.Searches(), 2);
        EXPECT_EQ(discovery.Stops(), 1);
    }
    EXPECT_EQ(discovery.Stops(), 2);
    EXPECT_EQ(log.Count("DiagnosticServices::Initialize()"), 2u);
}

}  // namespace
}  // namespace qervo::tee
