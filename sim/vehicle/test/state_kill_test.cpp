#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <random>

#include "sim_common/atomic_file.hpp"
#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"
#include "vehicle_sim/vehicle_state.hpp"
#include "vehicle_state_fixture.hpp"

namespace vehicle_sim {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::FindProgram;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;

std::size_t CountEntries(const std::string& directory) {
    std::size_t count = 0;
    DIR* dir = ::opendir(directory.c_str());
    while (const dirent* entry = ::readdir(dir)) {
        count += entry->d_name[0] != '.';
    }
    ::closedir(dir);
    return count;
}

// Killed at any moment of a write, the key store holds the old or the new
// state, complete and consistent, never a mixture or a torn file.
TEST(StateKillTest, KeyStoreAlwaysLoadsAfterTheWriterIsKilledMidWrite) {
    TemporaryDirectory directory;
    std::string error;
    ASSERT_TRUE(testing::MakeState(0).Save(directory.Path(), error)) << error;
    std::mt19937 random(std::random_device{}());
    std::uint16_t lastSeen = 0;
    int kills = 0;

    for (int round = 0; round < 40; ++round) {
        const std::uint16_t target = static_cast<std::uint16_t>(lastSeen + 1 + random() % 4);
        ChildProcess writer(
            {{FindProgram("vehicle_state_writer"), directory.Path(), testing::kTestSecret},
             {},
             directory.File("writer.log")});
        // Reading while it writes is part of the test: every read must succeed.
        const bool progressed = WaitUntil(
            [&] {
                const auto state = VehicleState::Load(directory.Path(), error);
                EXPECT_TRUE(state.has_value()) << error;
                return state && state->trainingCounter >= target;
            },
            10s, 0ms);
        ASSERT_TRUE(progressed) << kelvane::testing::ReadFile(directory.File("writer.log"));
        writer.Signal(SIGKILL);
        ASSERT_TRUE(writer.WaitForExit(5s).has_value());
        ++kills;

        const auto state = VehicleState::Load(directory.Path(), error);
        ASSERT_TRUE(state.has_value()) << "round " << round << ": " << error;
        EXPECT_GE(state->trainingCounter, target);
        EXPECT_EQ(state->keys,
                  sim_common::DeriveVehicleKeys(testing::kTestSecret, testing::kTestVin,
                                                state->trainingCounter));
        lastSeen = state->trainingCounter;
    }

    sim_common::RemoveStaleTemporaries(directory.File(VehicleState::kFileName));
    EXPECT_EQ(kills, 40);
    // The key store and the writer's log are all that is left.
    EXPECT_EQ(CountEntries(directory.Path()), 2u);
}

}  // namespace
}  // namespace vehicle_sim
