#include "sim_common/vehicle_keys.hpp"

#include <gtest/gtest.h>

#include "sim_common/hex.hpp"

namespace sim_common {
namespace {

const std::string kVin = "WKV0SIM0000000001";

TEST(VehicleKeysTest, DerivationIsStableAndSeparatesSecretVinAndGeneration) {
    const auto sut = DeriveVehicleKeys("secret", kVin, 0);

    EXPECT_EQ(sut, DeriveVehicleKeys("secret", kVin, 0));
    EXPECT_NE(sut, DeriveVehicleKeys("secret", kVin, 1));
    EXPECT_NE(sut, DeriveVehicleKeys("secret", "WKV0SIM0000000002", 0));
    EXPECT_NE(sut, DeriveVehicleKeys("Secret", kVin, 0));
    EXPECT_EQ(sut.identityKey.size(), VehicleKeys::kIdentityKeySize);
    EXPECT_EQ(sut.macKey.size(), VehicleKeys::kMacKeySize);
    EXPECT_EQ(sut.encryptionKey.size(), VehicleKeys::kEncryptionKeySize);
    EXPECT_NE(sut.identityKey,
              std::vector<std::uint8_t>(sut.macKey.begin(), sut.macKey.begin() + 16));
}

// A state written by one build must verify with the next: these values pin
// the derivation, the identity hash and the PSS hash.
TEST(VehicleKeysTest, KnownAnswersForTheDemoSecret) {
    const auto keys = DeriveVehicleKeys("kelvane-demo-secret", kVin, 0);
    const auto challenge = *FromHex("000102030405060708090A0B0C0D0E0F");

    EXPECT_EQ(ToHex(IdentityHash(keys, challenge)), "422203016222D42257DAB1CBCADE1444");
    EXPECT_EQ(ToHex(PssHash(keys)), "44AB6D2EDDB64DF8530E84E70CF791D6");
}

TEST(VehicleKeysTest, VinMustBeSeventeenDigitsOrCapitals) {
    EXPECT_TRUE(IsValidVin(kVin));
    EXPECT_FALSE(IsValidVin("WKV0SIM000000001"));
    EXPECT_FALSE(IsValidVin("WKV0SIM00000000012"));
    EXPECT_FALSE(IsValidVin("wkv0sim0000000001"));
    EXPECT_FALSE(IsValidVin("WKV0SIM 000000001"));
    EXPECT_FALSE(IsValidVin(""));
}

TEST(HexTest, UpperCaseOnTheWireEitherCaseInAndNoWhiteSpace) {
    EXPECT_EQ(ToHex({0x0A, 0xFF, 0x00}), "0AFF00");
    EXPECT_EQ(CounterToHex(42), "002A");
    EXPECT_EQ(CounterFromHex("002a"), 42);
    for (const char* bad : {"2A", "0002A", "00 A", "0G0A"}) {
        EXPECT_FALSE(CounterFromHex(bad).has_value()) << bad;
    }
}

}  // namespace
}  // namespace sim_common
