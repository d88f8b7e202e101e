#include "vehicle_sim/vehicle_state.hpp"

#include <botan/hash.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "sim_common/hex.hpp"
#include "test_support/temporary_directory.hpp"
#include "vehicle_state_fixture.hpp"

namespace vehicle_sim {
namespace {

using kelvane::testing::ReadFile;
using kelvane::testing::TemporaryDirectory;

class VehicleStateTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { state_ = new VehicleState(testing::MakeState()); }
    static void TearDownTestSuite() { delete state_; }
    static VehicleState* state_;
};

VehicleState* VehicleStateTest::state_ = nullptr;

TEST_F(VehicleStateTest, SavedStateLoadsBackUnchanged) {
    TemporaryDirectory directory;
    std::string error;
    auto pem = *state_;
    pem.pemCertificates = true;

    ASSERT_TRUE(pem.Save(directory.Path(), error)) << error;
    const auto loaded = VehicleState::Load(directory.Path(), error);

    ASSERT_TRUE(loaded.has_value()) << error;
    EXPECT_EQ(*loaded, pem);
}

TEST_F(VehicleStateTest, AnyChangedByteIsDetected) {
    const std::string text = state_->Serialize();
    std::string error;
    ASSERT_TRUE(VehicleState::Parse(text, error).has_value()) << error;

    for (std::size_t i = 0; i < text.size(); i += 7) {
        auto damaged = text;
        damaged[i] = damaged[i] == 'A' ? 'B' : 'A';
        error.clear();
        EXPECT_FALSE(VehicleState::Parse(damaged, error).has_value()) << "byte " << i;
        EXPECT_FALSE(error.empty());
    }
    for (const std::size_t length : {std::size_t{0}, text.size() / 2, text.size() - 2}) {
        EXPECT_FALSE(VehicleState::Parse(text.substr(0, length), error).has_value()) << length;
    }
}

TEST_F(VehicleStateTest, IntactButInvalidContentIsRefusedWithItsReason) {
    const std::string text = state_->Serialize();
    const std::string body = text.substr(0, text.find("checksum="));
    // As a hand edit that recomputes the checksum would leave it.
    const auto seal = [](const std::string& edited) {
        const auto hash = Botan::HashFunction::create_or_throw("SHA-256");
        hash->update(edited);
        const auto digest = hash->final();
        return edited + "checksum=" +
               sim_common::ToHex(std::vector<std::uint8_t>(digest.begin(), digest.end())) + "\n";
    };
    const auto replace = [&body](const std::string& from, const std::string& to) {
        auto edited = body;
        const auto at = edited.find(from);
        return edited.replace(at, from.size(), to);
    };
    const auto reason = [](const std::string& edited) {
        std::string error;
        EXPECT_FALSE(VehicleState::Parse(edited, error).has_value());
        return error;
    };

    EXPECT_EQ(reason(seal(replace("part_number=8W0907468A\n", ""))), "missing part_number");
    EXPECT_EQ(reason(seal(replace("format=1", "format=2"))), "unsupported format 2");
    EXPECT_EQ(reason(seal(replace("vin=WKV0SIM0000000042", "vin=SHORT"))), "bad vin");
    EXPECT_EQ(reason(seal(replace("training_counter=3", "training_counter=70000"))),
              "bad training_counter");
    EXPECT_EQ(reason(seal(replace("certificate_format=der", "certificate_format=txt"))),
              "bad certificate_format");
    std::string error;
    EXPECT_TRUE(VehicleState::Parse(seal(body), error).has_value()) << error;
}

TEST_F(VehicleStateTest, KeyStoreIsReadableByItsOwnerOnly) {
    TemporaryDirectory directory;
    std::string error;
    ASSERT_TRUE(state_->Save(directory.Path(), error));

    struct stat info {};
    ASSERT_EQ(::stat(directory.File(VehicleState::kFileName).c_str(), &info), 0);

    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_NE(ReadFile(directory.File(VehicleState::kFileName)).find("vin=WKV0SIM0000000042"),
              std::string::npos);
}

}  // namespace
}  // namespace vehicle_sim
