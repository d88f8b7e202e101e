#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <random>

#include "sim_common/atomic_file.hpp"
#include "sim_common/sim_defaults.hpp"
#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"
#include "vehicle_sim/vehicle_state.hpp"

namespace vehicle_sim {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::FindProgram;

// Killed at any moment of a write, the key store holds the old or the new
// state, complete and consistent, never a mixture or a torn file.
TEST(StateKillTest, KeyStoreAlwaysLoadsAfterTheWriterIsKilledMidWrite) {
    kelvane::testing::TemporaryDirectory directory;
    ChildProcess init({{FindProgram("kelvane-vehicle-sim"), "init", "--state", directory.Path(),
                        "--secret", "test-secret"},
                       {},
                       directory.File("init.log")});
    ASSERT_EQ(init.WaitForExit(20s), 0);
    std::mt19937 random(std::random_device{}());
    std::uint16_t lastSeen = 0;
    std::string error;

    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        const std::uint16_t target = static_cast<std::uint16_t>(lastSeen + 1 + random() % 4);
        ChildProcess writer({{FindProgram("vehicle_state_writer"), directory.Path(), "test-secret"},
                             {},
                             directory.File("writer.log")});
        // Reading while it writes is part of the test: every read must succeed.
        ASSERT_TRUE(kelvane::testing::WaitUntil(
            [&] {
                const auto state = VehicleState::Load(directory.Path(), error);
                EXPECT_TRUE(state.has_value()) << error;
                return state && state->trainingCounter >= target;
            },
            10s, 0ms));
        writer.Signal(SIGKILL);
        ASSERT_TRUE(writer.WaitForExit(5s).has_value());

        const auto state = VehicleState::Load(directory.Path(), error);
        ASSERT_TRUE(state.has_value()) << error;
        EXPECT_GE(state->trainingCounter, target);
        EXPECT_EQ(state->keys, sim_common::DeriveVehicleKeys("test-secret", sim_common::kDefaultVin,
                                                             state->trainingCounter));
        lastSeen = state->trainingCounter;
    }

    sim_common::RemoveStaleTemporaries(directory.File(VehicleState::kFileName));
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
        EXPECT_EQ(entry.path().string().find(".tmp"), std::string::npos) << entry.path();
    }
}

}  // namespace
}  // namespace vehicle_sim
