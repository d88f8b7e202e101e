#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "ac/com/runtime/component_singleton.hpp"
#include "ara/com/com_error_domain.hpp"
#include "sim_common/atomic_file.hpp"
#include "sim_common/dlc_container.hpp"
#include "sim_common/hex.hpp"
#include "sim_common/sim_defaults.hpp"
#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"
#include "vehicle_sim/vehicle_state.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"

namespace vehicle_sim {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::FindProgram;
using kelvane::testing::ReadFile;
using kelvane::testing::WaitUntil;
using ::testing::HasSubstr;
using ::testing::Pair;
using zelk::interfaces::diagservices::proxy::DiagServicesProxy;

// A vehicle made by `init` and running with a fail point armed on its command line.
class VehicleSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Cli({"init"}).first, 0);
        sut_ = std::make_unique<ChildProcess>(
            ChildProcess::Options{{FindProgram("kelvane-vehicle-sim"), "run", "--state",
                                   state_.Path(), "--fail", "HandleDlc"},
                                  {{"KELVANE_LOG", "console"}},
                                  state_.File("run.log")});
        ASSERT_TRUE(WaitUntil(
            [&] { return Cli({"status"}).second.find(R"("running":true)") != std::string::npos; },
            10s, 50ms))
            << ReadFile(state_.File("run.log"));
    }

    /// Runs a command on this vehicle's state to its end: its exit code and output.
    std::pair<int, std::string> Cli(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--state", state_.Path()});
        arguments.insert(arguments.begin(), FindProgram("kelvane-vehicle-sim"));
        const auto output = state_.File("cli-output");
        std::remove(output.c_str());
        ChildProcess process({arguments, {{"KELVANE_LOG", "console"}}, output});
        return {process.WaitForExit(20s).value_or(-1), ReadFile(output)};
    }

    kelvane::testing::PrivateDbusDaemon bus_;
    ac::com::runtime::Component_singleton component_{false, ""};
    kelvane::testing::TemporaryDirectory state_;
    std::unique_ptr<ChildProcess> sut_;
};

TEST_F(VehicleSimTest, KeyStoreIsNeitherOverwrittenByInitNorSharedByASecondRun) {
    EXPECT_THAT(Cli({"init"}),
                Pair(sim_common::kExitFailure, HasSubstr("already holds a key store")));
    EXPECT_THAT(Cli({"run"}),
                Pair(sim_common::kExitFailure, HasSubstr("another kelvane-vehicle-sim runs on")));
}

TEST_F(VehicleSimTest, MethodsRaiseTheirInterfacesErrorsAndFailPointsHitOnce) {
    DiagServicesProxy diag(ara::com::ServiceHandle(bus_.Address(),
                                                   "zelk.interfaces.diagservices.DiagServices",
                                                   "/zelk/interfaces/diagservices/DiagServices"));
    const DiagServicesProxy::Hash challenge{};
    const auto good = sim_common::BuildDlcContainer(
        sim_common::kDefaultVin, 0, {challenge.begin(), challenge.end()},
        sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, sim_common::kDefaultVin, 0),
        sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, sim_common::kDefaultVin, 1));
    const auto changed = [&good](std::size_t at) {
        auto bytes = good;
        bytes.at(at) ^= 3;
        return bytes;
    };
    diag.GetIdentityHash(challenge).get();
    const struct {
        const char* failPoint;  // armed through the command line first
        std::vector<std::uint8_t> container;
        std::string error;
    } rows[] = {
        {"", good, "ZELK_ERROR_GENERAL::1"},  // armed by run --fail
        {"HandleDlc=ZELK_ERROR_BUSY", good, "ZELK_ERROR_BUSY::23"},
        {"", {1, 2, 3}, "ZELK_ERROR_DLC_MALFORMATTED::31"},
        {"", changed(4), "ZELK_ERROR_DLC_UNSUPPORTED_VERSION::34"},
        {"", changed(24), "ZELK_ERROR_DLC_VERIFICATION_MISMATCH::33"},
        {"", changed(good.size() - 1), "ZELK_ERROR_DLC_INVALID_MAC::30"},
        {"persist", good, "ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED::29"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.error);
        ASSERT_EQ(*row.failPoint ? Cli({"fail", row.failPoint}).first : 0, 0);
        std::string error = "no error";

        try {
            diag.HandleDlc(row.container).get();
        } catch (const ara::com::ApplicationErrorException& exception) {
            error = exception.what();
        }

        EXPECT_EQ(error, "DiagServices::" + row.error);
    }
    EXPECT_EQ(diag.GetTrainingCounter().get().trainingCounter, 0);
    EXPECT_NO_THROW(diag.HandleDlc(good).get());
    ASSERT_EQ(Cli({"service", "stop", "DiagServices"}).first, 0);
    EXPECT_THROW(diag.GetTrainingCounter().get(), ara::com::ComException);
    ASSERT_EQ(Cli({"service", "start", "DiagServices"}).first, 0);
    EXPECT_EQ(diag.GetTrainingCounter().get().trainingCounter, 1);
    EXPECT_EQ(sut_->Stop(5000ms), 0);
}

// Killed at any moment of a write, the key store holds the old or the new state, never a torn mix.
TEST_F(VehicleSimTest, KeyStoreAlwaysLoadsAfterAWriterIsKilledMidWrite) {
    std::mt19937 random(std::random_device{}());
    std::uint16_t lastSeen = 0;
    std::string error;

    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        const auto target = static_cast<std::uint16_t>(lastSeen + 1 + random() % 4);
        ChildProcess writer(
            {{FindProgram("vehicle_state_writer"), state_.Path(), sim_common::kDefaultSecret},
             {},
             state_.File("writer.log")});
        // Reading while it writes is part of the test: every read must succeed.
        ASSERT_TRUE(WaitUntil(
            [&] {
                const auto state = VehicleState::Load(state_.Path(), error);
                EXPECT_TRUE(state.has_value()) << error;
                return state && state->trainingCounter >= target;
            },
            10s, 0ms));
        writer.Signal(SIGKILL);
        ASSERT_TRUE(writer.WaitForExit(5s).has_value());

        const auto state = VehicleState::Load(state_.Path(), error);
        ASSERT_TRUE(state.has_value()) << error;
        EXPECT_GE(state->trainingCounter, target);
        EXPECT_EQ(state->keys, sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, state->vin,
                                                             state->trainingCounter));
        lastSeen = state->trainingCounter;
    }

    sim_common::RemoveStaleTemporaries(state_.File(VehicleState::kFileName));
    for (const auto& entry : std::filesystem::directory_iterator(state_.Path())) {
        EXPECT_EQ(entry.path().string().find(".tmp"), std::string::npos) << entry.path();
    }
}

// Key stores and containers outlive a build: these values pin the key
// derivation, both hashes and the container's layout, encryption and MAC.
TEST(VehicleKeysTest, KnownAnswersForTheDemoSecret) {
    const auto keys = [](std::uint16_t counter) {
        return sim_common::DeriveVehicleKeys("kelvane-demo-secret", "WKV0SIM0000000001", counter);
    };
    const auto challenge = *sim_common::FromHex("000102030405060708090A0B0C0D0E0F");

    const auto container = sim_common::BuildDlcContainer(
        "WKV0SIM0000000001", 0, challenge, keys(0), keys(1),
        std::vector<std::uint8_t>(sim_common::DlcContainer::kIvSize, 0x5A));

    EXPECT_EQ(sim_common::ToHex(sim_common::IdentityHash(keys(0), challenge)),
              "422203016222D42257DAB1CBCADE1444");
    EXPECT_EQ(sim_common::ToHex(sim_common::PssHash(keys(0))), "44AB6D2EDDB64DF8530E84E70CF791D6");
    EXPECT_EQ(sim_common::ToHex({container.end() - 32, container.end()}),
              "5AFFAB4D9B294F1E50C6394192A3FE88578555B6A31DABDF94EC2FDA4A877CF9");
}

}  // namespace
}  // namespace vehicle_sim
