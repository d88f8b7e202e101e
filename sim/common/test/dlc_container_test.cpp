#include "sim_common/dlc_container.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "sim_common/hex.hpp"

namespace sim_common {
namespace {

const std::string kVin = "WKV0SIM0000000001";

class DlcContainerTest : public ::testing::Test {
protected:
    VehicleKeys current_ = DeriveVehicleKeys("secret", kVin, 7);
    VehicleKeys next_ = DeriveVehicleKeys("secret", kVin, 8);
    std::vector<std::uint8_t> challenge_ = *FromHex("00112233445566778899AABBCCDDEEFF");
    std::vector<std::uint8_t> iv_ = std::vector<std::uint8_t>(DlcContainer::kIvSize, 0x5A);
};

TEST_F(DlcContainerTest, BuiltContainerParsesVerifiesAndCarriesTheNextKeys) {
    const auto bytes = BuildDlcContainer(kVin, 7, challenge_, current_, next_, iv_);

    ASSERT_EQ(bytes.size(), DlcContainer::kSize);
    const auto parsed = ParseDlcContainer(bytes);
    ASSERT_EQ(parsed.error, ContainerParseError::kNone);
    EXPECT_EQ(parsed.container.vin, kVin);
    EXPECT_EQ(parsed.container.trainingCounter, 7);
    EXPECT_EQ(parsed.container.challenge, challenge_);
    EXPECT_EQ(parsed.container.iv, iv_);
    EXPECT_TRUE(HasValidMac(bytes, current_));
    const auto keys = DecryptNextKeys(parsed.container, current_);
    ASSERT_TRUE(keys.has_value());
    EXPECT_EQ(*keys, next_);
    // The new keys travel encrypted, never in the clear.
    const auto block = next_.Serialize();
    EXPECT_EQ(std::search(bytes.begin(), bytes.end(), block.begin(), block.begin() + 16),
              bytes.end());
}

TEST_F(DlcContainerTest, LayoutMatchesTheDocumentedOffsets) {
    const auto bytes = BuildDlcContainer(kVin, 0x1234, challenge_, current_, next_, iv_);

    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "KDLC");
    EXPECT_EQ(bytes[4], 1);
    EXPECT_EQ(std::string(bytes.begin() + 5, bytes.begin() + 22), kVin);
    EXPECT_EQ(bytes[22], 0x12);
    EXPECT_EQ(bytes[23], 0x34);
    EXPECT_EQ(std::vector<std::uint8_t>(bytes.begin() + 24, bytes.begin() + 40), challenge_);
    EXPECT_EQ(std::vector<std::uint8_t>(bytes.begin() + 40, bytes.begin() + 56), iv_);
}

TEST_F(DlcContainerTest, AnyFlippedBitBreaksTheMac) {
    const auto good = BuildDlcContainer(kVin, 7, challenge_, current_, next_, iv_);

    for (std::size_t i = 0; i < good.size(); ++i) {
        auto tampered = good;
        tampered[i] ^= 0x01;
        EXPECT_FALSE(HasValidMac(tampered, current_)) << "byte " << i;
    }
}

TEST_F(DlcContainerTest, MacOfAnotherGenerationOrVehicleIsRejected) {
    const auto bytes = BuildDlcContainer(kVin, 7, challenge_, current_, next_, iv_);

    EXPECT_FALSE(HasValidMac(bytes, next_));
    EXPECT_FALSE(HasValidMac(bytes, DeriveVehicleKeys("secret", "WKV0SIM0000000002", 7)));
    EXPECT_FALSE(HasValidMac(bytes, DeriveVehicleKeys("other secret", kVin, 7)));
}

TEST_F(DlcContainerTest, StructuralProblemsAreMalformattedAndOtherVersionsUnsupported) {
    const auto good = BuildDlcContainer(kVin, 7, challenge_, current_, next_, iv_);
    const std::vector<std::uint8_t> truncated(good.begin(), good.end() - 1);
    auto extended = good;
    extended.push_back(0);
    auto badMagic = good;
    badMagic[0] = 'X';
    auto badVin = good;
    badVin[5] = 'a';
    std::vector<std::uint8_t> version2(good.begin(), good.begin() + 10);
    version2[4] = 2;

    EXPECT_EQ(ParseDlcContainer({}).error, ContainerParseError::kMalformatted);
    EXPECT_EQ(ParseDlcContainer({'K', 'D', 'L', 'C'}).error, ContainerParseError::kMalformatted);
    EXPECT_EQ(ParseDlcContainer(truncated).error, ContainerParseError::kMalformatted);
    EXPECT_EQ(ParseDlcContainer(extended).error, ContainerParseError::kMalformatted);
    EXPECT_EQ(ParseDlcContainer(badMagic).error, ContainerParseError::kMalformatted);
    EXPECT_EQ(ParseDlcContainer(badVin).error, ContainerParseError::kMalformatted);
    EXPECT_EQ(ParseDlcContainer(version2).error, ContainerParseError::kUnsupportedVersion);
    EXPECT_FALSE(HasValidMac(truncated, current_));
}

TEST_F(DlcContainerTest, RandomIvsMakeEveryContainerDifferent) {
    const auto first = BuildDlcContainer(kVin, 7, challenge_, current_, next_);
    const auto second = BuildDlcContainer(kVin, 7, challenge_, current_, next_);

    EXPECT_NE(first, second);
    EXPECT_EQ(*DecryptNextKeys(ParseDlcContainer(second).container, current_), next_);
}

}  // namespace
}  // namespace sim_common
