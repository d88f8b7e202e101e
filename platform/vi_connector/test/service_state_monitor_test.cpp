#include "service_state_monitor.hpp"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "test_support/child_process.hpp"

// The probe behind the connector's state reports. Probing a backend that comes and
// goes through the connector is driven end to end by the client's own tests.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using States = std::vector<std::uint8_t>;

constexpr const char* kServiceId = "TTVI-Kelvane-C003";

class RecordingStateCallback : public VIServiceControllerCallbackIf {
public:
    void VISCSessionStatus(SCSessionStatus) override {}
    void VISCInvocationURL(SCUrlResult) override {}
    void VISCConnectionState(SCConnectionStateUpdate update) override {
        std::lock_guard<std::mutex> lock(mutex_);
        EXPECT_EQ(update.transactionTypeId, kServiceId);
        states_.push_back(update.state);
    }

    States Reported() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return states_;
    }

private:
    mutable std::mutex mutex_;
    States states_;
};

TEST(ServiceStateMonitorTest, ProbedAndForcedStatesAreReportedOnChangeAndDestructionCancelsAProbe) {
    enum Probe { kUnreachable, kReachable, kBlocking };
    std::atomic<int> mode{kUnreachable};
    std::atomic<int> probes{0};
    std::atomic<bool> blocked{false};
    std::atomic<bool> sawCancel{false};
    RecordingStateCallback callback;
    auto sut = std::make_unique<ServiceStateMonitor>(
        [&](int cancelFd) {
            ++probes;
            if (mode == kBlocking) {
                blocked = true;
                pollfd cancel{cancelFd, POLLIN, 0};
                sawCancel = ::poll(&cancel, 1, 10000) == 1;
                return true;
            }
            return mode == kReachable;
        },
        1ms);
    const auto reported = [&](const States& states) {
        return kelvane::testing::WaitUntil([&] { return callback.Reported() == states; }, 5s);
    };
    sut->Subscribe(kServiceId, &callback);
    ASSERT_TRUE(reported({1}));

    mode = kReachable;
    ASSERT_TRUE(reported({1, 2}));
    const int probesWhenConnected = probes.load();
    ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return probes > probesWhenConnected + 3; }, 5s));
    mode = kUnreachable;
    ASSERT_TRUE(reported({1, 2, 1}));
    sut->Force(2);
    sut->Force(2);
    sut->Force(std::nullopt);
    mode = kBlocking;
    ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return blocked.load(); }, 5s));
    sut.reset();

    EXPECT_TRUE(sawCancel);
    EXPECT_EQ(callback.Reported(), (States{1, 2, 1, 2, 1}));
}

TEST(ServiceStateMonitorTest, ProbeTargetComesFromTheUrlsAuthority) {
    struct Case {
        const char* url;
        std::optional<std::pair<std::string, std::uint16_t>> target;
    };
    const std::vector<Case> cases = {
        {"http://127.0.0.1:8080/zelk/dlc/challenge", {{"127.0.0.1", 8080}}},
        {"https://backend.example/path?q=1", {{"backend.example", 443}}},
        {"http://[::1]:9000/x", {{"::1", 9000}}},
        {"ftp://host/", std::nullopt},
        {"http://host:99999/", std::nullopt},
        {"http://[::1/", std::nullopt},
    };
    for (const auto& [url, expected] : cases) {
        const auto target = ProbeTargetFromUrl(url);

        EXPECT_EQ(
            target ? std::make_optional(std::make_pair(target->host, target->port)) : std::nullopt,
            expected)
            << url;
    }
}

}  // namespace
}  // namespace vi_connector
