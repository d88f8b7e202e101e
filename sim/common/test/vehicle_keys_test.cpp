#include "sim_common/vehicle_keys.hpp"

#include <gtest/gtest.h>

#include "sim_common/dlc_container.hpp"
#include "sim_common/hex.hpp"

namespace sim_common {
namespace {

// Key stores and containers outlive a build: these values pin the key
// derivation, both hashes and the container's layout, encryption and MAC.
TEST(VehicleKeysTest, KnownAnswersForTheDemoSecret) {
    const std::string vin = "WKV0SIM0000000001";
    const auto keys = DeriveVehicleKeys("kelvane-demo-secret", vin, 0);
    const auto challenge = *FromHex("000102030405060708090A0B0C0D0E0F");

    const auto container =
        BuildDlcContainer(vin, 0, challenge, keys, DeriveVehicleKeys("kelvane-demo-secret", vin, 1),
                          std::vector<std::uint8_t>(DlcContainer::kIvSize, 0x5A));

    EXPECT_EQ(ToHex(IdentityHash(keys, challenge)), "422203016222D42257DAB1CBCADE1444");
    EXPECT_EQ(ToHex(PssHash(keys)), "44AB6D2EDDB64DF8530E84E70CF791D6");
    EXPECT_EQ(ToHex({container.end() - 32, container.end()}),
              "5AFFAB4D9B294F1E50C6394192A3FE88578555B6A31DABDF94EC2FDA4A877CF9");
}

}  // namespace
}  // namespace sim_common
