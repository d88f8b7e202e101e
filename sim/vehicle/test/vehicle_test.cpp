#include "vehicle_sim/vehicle.hpp"

#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "sim_common/dlc_container.hpp"
#include "sim_common/hex.hpp"
#include "test_support/temporary_directory.hpp"
#include "vehicle_sim/certificate_factory.hpp"
#include "vehicle_state_fixture.hpp"

namespace vehicle_sim {
namespace {

using namespace std::chrono_literals;
using sim_common::DeriveVehicleKeys;
using testing::kTestSecret;
using testing::kTestVin;

const Vehicle::Challenge kChallenge = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                       0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

class VehicleTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initial_ = new VehicleState(testing::MakeState(3)); }
    static void TearDownTestSuite() { delete initial_; }

    void SetUp() override {
        std::string error;
        ASSERT_TRUE(initial_->Save(directory_.Path(), error)) << error;
        sut_ =
            std::make_unique<Vehicle>(directory_.Path(), *initial_, 60s, [this] { return now_; });
    }

    /// What the backend would send for `challenge` to a vehicle at `counter`.
    static std::vector<std::uint8_t> Container(const Vehicle::Challenge& challenge,
                                               std::uint16_t counter = 3,
                                               const std::string& vin = kTestVin) {
        return sim_common::BuildDlcContainer(
            vin, counter, std::vector<std::uint8_t>(challenge.begin(), challenge.end()),
            DeriveVehicleKeys(kTestSecret, vin, counter),
            DeriveVehicleKeys(kTestSecret, vin, static_cast<std::uint16_t>(counter + 1)));
    }

    VehicleState OnDisk() const {
        std::string error;
        const auto state = VehicleState::Load(directory_.Path(), error);
        EXPECT_TRUE(state.has_value()) << error;
        return state.value_or(VehicleState{});
    }

    DlcVerdict Handle(const std::vector<std::uint8_t>& container, bool failPersist = false) {
        detail_.clear();
        return sut_->HandleDlc(container, failPersist, detail_);
    }

    static VehicleState* initial_;
    kelvane::testing::TemporaryDirectory directory_;
    Vehicle::Clock::time_point now_ = Vehicle::Clock::time_point(10h);
    std::unique_ptr<Vehicle> sut_;
    std::string detail_;
};

VehicleState* VehicleTest::initial_ = nullptr;

TEST_F(VehicleTest, AnswersWhatTheBackendDerivesFromTheSharedSecret) {
    const auto keys = DeriveVehicleKeys(kTestSecret, kTestVin, 3);

    EXPECT_EQ(sut_->IdentityHash(kChallenge),
              sim_common::IdentityHash(keys, {kChallenge.begin(), kChallenge.end()}));
    EXPECT_EQ(sut_->PssHash(), sim_common::PssHash(keys));
    EXPECT_EQ(sut_->TrainingCounter(), 3);
    EXPECT_EQ(sut_->Vin(), kTestVin);
}

TEST_F(VehicleTest, GoodContainerInstallsTheNextGenerationDurably) {
    const auto before = std::chrono::system_clock::now();
    sut_->IdentityHash(kChallenge);

    ASSERT_EQ(Handle(Container(kChallenge)), DlcVerdict::kInstalled) << detail_;

    const auto next = DeriveVehicleKeys(kTestSecret, kTestVin, 4);
    EXPECT_EQ(sut_->TrainingCounter(), 4);
    EXPECT_EQ(sut_->PssHash(), sim_common::PssHash(next));
    EXPECT_EQ(sut_->IdentityHash(kChallenge),
              sim_common::IdentityHash(next, {kChallenge.begin(), kChallenge.end()}));
    const auto notAfter = CertificateFactory::NotAfter(sut_->State().baseCertificate);
    EXPECT_GE(notAfter, before + Vehicle::kBaseCertificateLifetime - 1s);
    EXPECT_LE(notAfter, std::chrono::system_clock::now() + Vehicle::kBaseCertificateLifetime);
    EXPECT_EQ(OnDisk(), sut_->State());
    EXPECT_EQ(OnDisk().rootCertificate, initial_->rootCertificate);
}

TEST_F(VehicleTest, TamperedContainersAreRejectedWithTheMatchingErrorAndChangeNothing) {
    sut_->IdentityHash(kChallenge);
    const auto good = Container(kChallenge);
    auto keyBitFlipped = good;
    keyBitFlipped[60] ^= 0x01;
    auto macFlipped = good;
    macFlipped.back() ^= 0x80;
    auto otherVersion = good;
    otherVersion[4] = 2;
    const std::vector<std::uint8_t> truncated(good.begin(), good.end() - 1);
    const auto wrongSecret = sim_common::BuildDlcContainer(
        kTestVin, 3, {kChallenge.begin(), kChallenge.end()},
        DeriveVehicleKeys("guess", kTestVin, 3), DeriveVehicleKeys("guess", kTestVin, 4));

    EXPECT_EQ(Handle(keyBitFlipped), DlcVerdict::kInvalidMac);
    EXPECT_EQ(Handle(macFlipped), DlcVerdict::kInvalidMac);
    EXPECT_EQ(Handle(wrongSecret), DlcVerdict::kInvalidMac);
    EXPECT_EQ(Handle(otherVersion), DlcVerdict::kUnsupportedVersion);
    EXPECT_EQ(Handle(truncated), DlcVerdict::kMalformatted);
    EXPECT_EQ(Handle({}), DlcVerdict::kMalformatted);
    EXPECT_EQ(Handle(std::vector<std::uint8_t>(152, 0x41)), DlcVerdict::kMalformatted);

    EXPECT_EQ(sut_->State(), *initial_);
    EXPECT_EQ(OnDisk(), *initial_);
    // The challenge is still pending: the genuine container still installs.
    EXPECT_EQ(Handle(good), DlcVerdict::kInstalled) << detail_;
}

TEST_F(VehicleTest, ReplayedContainerIsAMismatch) {
    sut_->IdentityHash(kChallenge);
    const auto container = Container(kChallenge);
    ASSERT_EQ(Handle(container), DlcVerdict::kInstalled);

    EXPECT_EQ(Handle(container), DlcVerdict::kVerificationMismatch);
    sut_->IdentityHash(kChallenge);
    EXPECT_EQ(Handle(container), DlcVerdict::kVerificationMismatch);
    EXPECT_NE(detail_.find("training counter 3, the vehicle is at 4"), std::string::npos)
        << detail_;
    EXPECT_EQ(sut_->TrainingCounter(), 4);
}

TEST_F(VehicleTest, ContainerMustAnswerTheLatestFreshChallengeOfThisVehicle) {
    auto otherChallenge = kChallenge;
    otherChallenge[0] = 0xFF;

    EXPECT_EQ(Handle(Container(kChallenge)), DlcVerdict::kVerificationMismatch);
    EXPECT_NE(detail_.find("no challenge"), std::string::npos) << detail_;
    sut_->IdentityHash(kChallenge);
    sut_->IdentityHash(otherChallenge);
    EXPECT_EQ(Handle(Container(kChallenge)), DlcVerdict::kVerificationMismatch);
    EXPECT_EQ(Handle(Container(otherChallenge, 3, "WKV0SIM0000000043")),
              DlcVerdict::kVerificationMismatch);
    EXPECT_NE(detail_.find("VIN WKV0SIM0000000043"), std::string::npos) << detail_;
    EXPECT_EQ(Handle(Container(otherChallenge, 2)), DlcVerdict::kVerificationMismatch);
    now_ += 61s;
    EXPECT_EQ(Handle(Container(otherChallenge)), DlcVerdict::kVerificationMismatch);
    EXPECT_NE(detail_.find("older than 60 s"), std::string::npos) << detail_;
    sut_->IdentityHash(otherChallenge);
    now_ += 60s;
    EXPECT_EQ(Handle(Container(otherChallenge)), DlcVerdict::kInstalled) << detail_;
}

TEST_F(VehicleTest, FailedWriteLeavesTheOldStateAndTheChallengePending) {
    csc_logging::LogCapture log;
    sut_->IdentityHash(kChallenge);
    const auto container = Container(kChallenge);

    EXPECT_EQ(Handle(container, true), DlcVerdict::kPersistFailed);

    EXPECT_EQ(sut_->State(), *initial_);
    EXPECT_EQ(OnDisk(), *initial_);
    EXPECT_TRUE(log.Contains(csc_logging::LogLevel::kError, "key store not written"));
    EXPECT_EQ(Handle(container), DlcVerdict::kInstalled);
}

TEST_F(VehicleTest, CertificatesByTypeIdInTheConfiguredEncoding) {
    auto pemState = *initial_;
    pemState.pemCertificates = true;
    const Vehicle pem(directory_.Path(), pemState, 60s);

    EXPECT_EQ(sut_->Certificate(11), initial_->baseCertificate);
    EXPECT_EQ(sut_->Certificate(13), initial_->rootCertificate);
    EXPECT_FALSE(sut_->Certificate(12).has_value());
    EXPECT_FALSE(sut_->Certificate(0).has_value());
    const auto text = pem.Certificate(11).value_or(std::vector<std::uint8_t>{});
    EXPECT_EQ(std::string(text.begin(), text.end()).rfind("-----BEGIN CERTIFICATE-----", 0), 0u);
}

TEST_F(VehicleTest, UdsAnswersThePartNumberOnly) {
    const auto partNumber = sut_->HandleUds(0x22, {0xF1, 0x87});

    ASSERT_TRUE(partNumber.has_value());
    EXPECT_EQ(std::string(partNumber->begin() + 2, partNumber->end()), "8W0907468A");
    EXPECT_EQ((*partNumber)[0], 0xF1);
    EXPECT_EQ((*partNumber)[1], 0x87);
    EXPECT_FALSE(sut_->HandleUds(0x22, {0xF1, 0x90}).has_value());
    EXPECT_FALSE(sut_->HandleUds(0x2E, {0xF1, 0x87}).has_value());
    EXPECT_FALSE(sut_->HandleUds(0x22, {}).has_value());
}

TEST(VehicleCounterTest, ExhaustedTrainingCounterRefusesEvenAGoodContainer) {
    kelvane::testing::TemporaryDirectory directory;
    auto state = testing::MakeState(0xFFFF);
    Vehicle sut(directory.Path(), state, 60s);
    sut.IdentityHash(kChallenge);
    const auto keys = DeriveVehicleKeys(kTestSecret, kTestVin, 0xFFFF);
    std::string detail;

    const auto verdict =
        sut.HandleDlc(sim_common::BuildDlcContainer(
                          kTestVin, 0xFFFF, {kChallenge.begin(), kChallenge.end()}, keys, keys),
                      false, detail);

    EXPECT_EQ(verdict, DlcVerdict::kPreconditionNotMet);
    EXPECT_EQ(sut.TrainingCounter(), 0xFFFF);
}

}  // namespace
}  // namespace vehicle_sim
