#include "vehicle_sim/vehicle_sim_app.hpp"

#include <botan/x509cert.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <condition_variable>
#include <map>
#include <mutex>

#include "ac/com/runtime/component_singleton.hpp"
#include "ac/dm/genericuds/genericuds_proxy.hpp"
#include "sim_common/dlc_container.hpp"
#include "sim_common/sim_defaults.hpp"
#include "test_support/child_process.hpp"
#include "test_support/private_dbus_daemon.hpp"
#include "test_support/temporary_directory.hpp"
#include "vehicle_sim/control_client.hpp"
#include "vehicle_sim/vehicle_runtime.hpp"
#include "zelk/interfaces/diagservices/diagservices_proxy.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_proxy.hpp"

namespace vehicle_sim {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::FindProgram;
using kelvane::testing::ReadFile;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;
using zelk::interfaces::diagservices::proxy::DiagServicesProxy;
using zelk::interfaces::typeidaccess::proxy::TypeIdAccessProxy;
using GenericUdsProxy = ac::dm::genericuds::proxy::GenericUDSServiceProxy;

// The test main silences children's logs; these tests read them.
const std::map<std::string, std::string> kConsoleLog = {{"KELVANE_LOG", "console"}};
const std::string kVin = sim_common::kDefaultVin;
const DiagServicesProxy::Hash kChallenge = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

struct Outcome {
    int exitCode = -1;
    std::string output;
};

Outcome RunToEnd(std::vector<std::string> arguments) {
    TemporaryDirectory directory;
    arguments.insert(arguments.begin(), FindProgram("kelvane-vehicle-sim"));
    ChildProcess process({arguments, kConsoleLog, directory.File("output")});
    const auto status = process.WaitForExit(20s);
    return {status.value_or(-1), ReadFile(directory.File("output"))};
}

/// Follows the instances of one service as the ara::com binding reports them.
template <typename Proxy>
class Instances {
public:
    explicit Instances(const char* instance) {
        search_ = Proxy::StartFindService(
            [this](ara::com::ServiceHandleContainer<typename Proxy::HandleType> handles,
                   ara::com::FindServiceHandle) {
                const std::lock_guard<std::mutex> lock(mutex_);
                handles_ = std::move(handles);
                ++reports_;
                changed_.notify_all();
            },
            ara::core::InstanceSpecifier(instance));
    }
    ~Instances() { Proxy::StopFindService(search_); }

    /// A proxy to the instance once one is there; nothing after 10 s.
    std::unique_ptr<Proxy> WaitForProxy() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, 10s, [this] { return !handles_.empty(); })) {
            return nullptr;
        }
        return std::make_unique<Proxy>(handles_.front());
    }
    bool WaitUntilGone() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 10s, [this] { return reports_ > 0 && handles_.empty(); });
    }

private:
    ara::com::FindServiceHandle search_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<typename Proxy::HandleType> handles_;
    int reports_ = 0;
};

template <typename Call>
std::string ApplicationError(Call call, std::int32_t* code = nullptr) {
    try {
        call();
    } catch (const ara::com::ApplicationErrorException& exception) {
        if (code != nullptr) {
            *code = exception.Error().Value();
        }
        return exception.what();
    }
    return "no error";
}

class RunningVehicleTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto init = RunToEnd({"init", "--state", state_.Path()});
        ASSERT_EQ(init.exitCode, 0) << init.output;
        Start();
    }

    void Start(std::vector<std::string> extra = {}) {
        std::vector<std::string> arguments = {FindProgram("kelvane-vehicle-sim"), "run", "--state",
                                              state_.Path()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        vehicle_ = std::make_unique<ChildProcess>(
            ChildProcess::Options{arguments, kConsoleLog, state_.File("run.log")});
        ASSERT_TRUE(WaitUntil([this] { return Control("ping") == "ok\n"; }, 10s))
            << ReadFile(state_.File("run.log"));
    }

    int Stop() {
        const int code = vehicle_->Stop(5000ms);
        vehicle_.reset();
        return code;
    }

    std::string Control(const std::string& command) {
        std::string reply;
        ControlClient::Send(state_.File(VehicleRuntime::kSocketName), command, reply, 2s);
        return reply;
    }

    Outcome Cli(std::vector<std::string> arguments) {
        arguments.push_back("--state");
        arguments.push_back(state_.Path());
        return RunToEnd(arguments);
    }

    static std::vector<std::uint8_t> GoodContainer(std::uint16_t counter) {
        return sim_common::BuildDlcContainer(
            kVin, counter, {kChallenge.begin(), kChallenge.end()},
            sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, kVin, counter),
            sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, kVin,
                                          static_cast<std::uint16_t>(counter + 1)));
    }

    static std::chrono::hours DaysLeft(const std::vector<std::uint8_t>& certificate) {
        const auto notAfter = Botan::X509_Certificate(certificate).not_after().to_std_timepoint();
        return std::chrono::duration_cast<std::chrono::hours>(notAfter -
                                                              std::chrono::system_clock::now());
    }

    kelvane::testing::PrivateDbusDaemon bus_;
    ac::com::runtime::Component_singleton component_{false, ""};
    TemporaryDirectory state_;
    std::unique_ptr<ChildProcess> vehicle_;
};

TEST_F(RunningVehicleTest, GoodContainerOverTheBusUpdatesTheVehicleForGood) {
    Instances<DiagServicesProxy> diagInstances(zelk::interfaces::diagservices::kInstance);
    Instances<TypeIdAccessProxy> typeIdInstances(zelk::interfaces::typeidaccess::kInstance);
    auto diag = diagInstances.WaitForProxy();
    auto typeIds = typeIdInstances.WaitForProxy();
    ASSERT_TRUE(diag && typeIds);
    const auto generation0 = sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, kVin, 0);
    const auto vin = diag->GetZelkVIN().get().vin;

    EXPECT_EQ(std::string(vin.begin(), vin.end()), kVin);
    EXPECT_EQ(diag->GetTrainingCounter().get().trainingCounter, 0);
    const auto pss = diag->GetPssHash().get().pssHash;
    EXPECT_EQ(std::vector<std::uint8_t>(pss.begin(), pss.end()), sim_common::PssHash(generation0));
    const auto identity = diag->GetIdentityHash(kChallenge).get().identityHash;
    EXPECT_EQ(std::vector<std::uint8_t>(identity.begin(), identity.end()),
              sim_common::IdentityHash(generation0, {kChallenge.begin(), kChallenge.end()}));
    const auto baseBefore = typeIds->GetCertificate(11).get().certificate;
    EXPECT_NEAR(DaysLeft(baseBefore).count() / 24.0, 200, 1);

    EXPECT_NO_THROW(diag->HandleDlc(GoodContainer(0)).get());

    EXPECT_EQ(diag->GetTrainingCounter().get().trainingCounter, 1);
    EXPECT_NEAR(DaysLeft(typeIds->GetCertificate(11).get().certificate).count() / 24.0, 3 * 365, 1);
    EXPECT_EQ(typeIds->GetCertificate(13).get().certificate.empty(), false);
    EXPECT_EQ(Stop(), 0);
    Start();
    auto diagAfterRestart = diagInstances.WaitForProxy();
    ASSERT_TRUE(diagAfterRestart);
    EXPECT_EQ(diagAfterRestart->GetTrainingCounter().get().trainingCounter, 1);
    const auto pssAfter = diagAfterRestart->GetPssHash().get().pssHash;
    EXPECT_EQ(
        std::vector<std::uint8_t>(pssAfter.begin(), pssAfter.end()),
        sim_common::PssHash(sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, kVin, 1)));
}

TEST_F(RunningVehicleTest, WrongRequestsRaiseTheInterfacesApplicationErrors) {
    Instances<DiagServicesProxy> diagInstances(zelk::interfaces::diagservices::kInstance);
    Instances<TypeIdAccessProxy> typeIdInstances(zelk::interfaces::typeidaccess::kInstance);
    Instances<GenericUdsProxy> udsInstances(ac::dm::genericuds::kInstance);
    auto diag = diagInstances.WaitForProxy();
    auto typeIds = typeIdInstances.WaitForProxy();
    auto uds = udsInstances.WaitForProxy();
    ASSERT_TRUE(diag && typeIds && uds);
    diag->GetIdentityHash(kChallenge).get();
    auto badMac = GoodContainer(0);
    badMac.back() ^= 1;
    std::int32_t code = 0;

    EXPECT_EQ(ApplicationError([&] { diag->HandleDlc(badMac).get(); }, &code),
              "DiagServices::ZELK_ERROR_DLC_INVALID_MAC::30");
    EXPECT_EQ(code, 30);
    EXPECT_EQ(ApplicationError([&] {
                  diag->HandleDlc({1, 2, 3}).get();
              }),
              "DiagServices::ZELK_ERROR_DLC_MALFORMATTED::31");
    EXPECT_NO_THROW(diag->HandleDlc(GoodContainer(0)).get());
    EXPECT_EQ(ApplicationError([&] { diag->HandleDlc(GoodContainer(0)).get(); }),
              "DiagServices::ZELK_ERROR_DLC_VERIFICATION_MISMATCH::33");
    EXPECT_EQ(ApplicationError([&] { typeIds->GetCertificate(12).get(); }),
              "TypeIdAccess::ZELK_ERROR_INVALID_TYPEID::20");
    EXPECT_EQ(ApplicationError([&] {
                  uds->HandleMessage(0x22, {0xF1, 0x90}).get();
              }),
              "GenericUDSService::UDSServiceFailed::2");
    const auto partNumber = uds->HandleMessage(0x22, {0xF1, 0x87}).get().responseData;
    EXPECT_EQ(std::string(partNumber.begin() + 2, partNumber.end()), "8W0907468A");
}

TEST_F(RunningVehicleTest, CommandLineSteersTheRunningInstance) {
    Instances<DiagServicesProxy> diagInstances(zelk::interfaces::diagservices::kInstance);
    auto diag = diagInstances.WaitForProxy();
    ASSERT_TRUE(diag);
    auto connection = sdbus::createSessionBusConnectionWithAddress(bus_.Address());
    auto clamp =
        sdbus::createProxy(*connection, "clampcontrol.ClampControl", "/clampcontrol/ClampControl");
    const auto clampState = [&clamp] {
        bool on = false;
        clamp->callMethod("GetState").onInterface("clampcontrol.ClampControl").storeResultsTo(on);
        return on;
    };

    EXPECT_FALSE(clampState());
    EXPECT_EQ(Cli({"clamp", "on"}).exitCode, 0);
    EXPECT_TRUE(clampState());
    const auto failArmed = Cli({"fail", "GetTrainingCounter=ZELK_ERROR_BUSY"});
    EXPECT_EQ(failArmed.exitCode, 0) << failArmed.output;
    EXPECT_EQ(ApplicationError([&] { diag->GetTrainingCounter().get(); }),
              "DiagServices::ZELK_ERROR_BUSY::23");
    EXPECT_EQ(diag->GetTrainingCounter().get().trainingCounter, 0);
    EXPECT_EQ(Cli({"service", "stop", "DiagServices"}).exitCode, 0);
    EXPECT_TRUE(diagInstances.WaitUntilGone());
    const auto status = Cli({"status"});
    EXPECT_EQ(status.exitCode, 0);
    EXPECT_NE(status.output.find(R"("clamp15":true)"), std::string::npos) << status.output;
    EXPECT_NE(status.output.find(R"("DiagServices":false)"), std::string::npos) << status.output;
    EXPECT_EQ(Cli({"service", "start", "DiagServices"}).exitCode, 0);
    auto again = diagInstances.WaitForProxy();
    ASSERT_TRUE(again);
    EXPECT_EQ(again->GetTrainingCounter().get().trainingCounter, 0);
    const auto unknown = Cli({"service", "stop", "Radio"});
    EXPECT_EQ(unknown.exitCode, sim_common::kExitFailure);
    EXPECT_NE(unknown.output.find("unknown service 'Radio'"), std::string::npos);
}

TEST_F(RunningVehicleTest, SecondInstanceOnTheSameStateIsRefused) {
    const auto second = Cli({"run"});

    EXPECT_EQ(second.exitCode, sim_common::kExitFailure);
    EXPECT_NE(second.output.find("another kelvane-vehicle-sim runs on"), std::string::npos)
        << second.output;
    EXPECT_EQ(Control("ping"), "ok\n");
}

TEST_F(RunningVehicleTest, PersistFailPointLeavesTheStateAsItWas) {
    Instances<DiagServicesProxy> diagInstances(zelk::interfaces::diagservices::kInstance);
    auto diag = diagInstances.WaitForProxy();
    ASSERT_TRUE(diag);
    ASSERT_EQ(Control("fail persist"), "ok\n");
    diag->GetIdentityHash(kChallenge).get();

    EXPECT_EQ(ApplicationError([&] { diag->HandleDlc(GoodContainer(0)).get(); }),
              "DiagServices::ZELK_ERROR_PERSIST_KEY_STORAGE_FAILED::29");
    EXPECT_EQ(diag->GetTrainingCounter().get().trainingCounter, 0);
    EXPECT_EQ(Stop(), 0);
    EXPECT_NE(Cli({"status"}).output.find(R"("running":false)"), std::string::npos);
    EXPECT_NE(Cli({"status"}).output.find(R"("trainingCounter":0)"), std::string::npos);
}

class BadCommandLine : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(BadCommandLine, ExitsWithUsageCodeAndOneLineReason) {
    const auto outcome = RunToEnd(GetParam());

    EXPECT_EQ(outcome.exitCode, sim_common::kExitUsage);
    EXPECT_EQ(outcome.output.rfind("kelvane-vehicle-sim: ", 0), 0u) << outcome.output;
    EXPECT_EQ(std::count(outcome.output.begin(), outcome.output.end(), '\n'), 1) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, BadCommandLine,
    ::testing::Values(std::vector<std::string>{}, std::vector<std::string>{"start"},
                      std::vector<std::string>{"init", "--vin", "SHORT"},
                      std::vector<std::string>{"init", "--base-cert-days", "soon"},
                      std::vector<std::string>{"init", "--training-counter", "65536"},
                      std::vector<std::string>{"init", "--cert-format", "txt"},
                      std::vector<std::string>{"run", "--clamp", "maybe"},
                      std::vector<std::string>{"run", "--fail", "Nope"},
                      std::vector<std::string>{"run", "--challenge-lifetime", "0"},
                      std::vector<std::string>{"clamp"}, std::vector<std::string>{"clamp", "dim"},
                      std::vector<std::string>{"service", "pause", "DiagServices"},
                      std::vector<std::string>{"status", "--bogus"}));

TEST(VehicleSimAppTest, CommandsWithoutAStateOrInstanceFailWithTheReason) {
    TemporaryDirectory directory;
    const auto state = directory.File("state");

    const auto runWithoutState = RunToEnd({"run", "--state", state});
    const auto clampWithoutInstance = RunToEnd({"clamp", "on", "--state", state});
    const auto firstInit = RunToEnd({"init", "--state", state, "--base-cert-days", "-5"});
    const auto secondInit = RunToEnd({"init", "--state", state});
    const auto offlineStatus = RunToEnd({"status", "--state", state});

    EXPECT_EQ(runWithoutState.exitCode, sim_common::kExitFailure);
    EXPECT_NE(runWithoutState.output.find("no key store at"), std::string::npos)
        << runWithoutState.output;
    EXPECT_EQ(clampWithoutInstance.exitCode, sim_common::kExitFailure);
    EXPECT_NE(clampWithoutInstance.output.find("no simulator runs on"), std::string::npos);
    EXPECT_EQ(firstInit.exitCode, 0) << firstInit.output;
    EXPECT_EQ(secondInit.exitCode, sim_common::kExitFailure);
    EXPECT_NE(secondInit.output.find("already holds a key store"), std::string::npos);
    EXPECT_EQ(offlineStatus.exitCode, 0);
    EXPECT_NE(offlineStatus.output.find(R"("running":false)"), std::string::npos);
    EXPECT_EQ(ReadFile(directory.File("state/tesmo_string.bin")), "TESMO-" + kVin);
}

}  // namespace
}  // namespace vehicle_sim
