#include "service_state_monitor.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/scripted_tcp_server.hpp"
#include "test_support/temporary_directory.hpp"
#include "vi_connector/vi_connector.hpp"

// The probe and the connector's state reports. Probing a backend that comes and
// goes is driven end to end by the client's own tests.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ScriptedTcpServer;
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
        changed_.notify_all();
    }

    States Reported() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return states_;
    }
    /// True once the latest report carries `state`.
    bool WaitForState(std::uint8_t state) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 5s,
                                 [&] { return !states_.empty() && states_.back() == state; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    States states_;
};

TEST(ServiceStateMonitorTest, ProbeResultsBecomeStatesReportedOnEveryChangeOnly) {
    std::atomic<bool> reachable{false};
    std::atomic<int> probes{0};
    ServiceStateMonitor sut(
        [&](int /*cancelFd*/) {
            ++probes;
            return reachable.load();
        },
        1ms);
    RecordingStateCallback callback;
    sut.Subscribe(kServiceId, &callback);
    ASSERT_TRUE(callback.WaitForState(ServiceStateMonitor::kNotConnected));

    reachable = true;
    ASSERT_TRUE(callback.WaitForState(ServiceStateMonitor::kConnected));
    const int probesWhenConnected = probes.load();
    ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return probes > probesWhenConnected + 3; }, 5s));
    reachable = false;
    ASSERT_TRUE(callback.WaitForState(ServiceStateMonitor::kNotConnected));

    EXPECT_EQ(callback.Reported(), (States{1, 2, 1}));
}

TEST(ServiceStateMonitorTest, DestructionCancelsABlockedProbeWithoutReportingIt) {
    std::atomic<bool> probing{false};
    std::atomic<bool> sawCancel{false};
    RecordingStateCallback callback;
    {
        ServiceStateMonitor sut(
            [&](int cancelFd) {
                probing = true;
                pollfd cancel{cancelFd, POLLIN, 0};
                sawCancel = ::poll(&cancel, 1, 10000) == 1;
                return false;
            },
            1h);
        sut.Force(2);
        sut.Subscribe(kServiceId, &callback);
        sut.Force(std::nullopt);
        ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return probing.load(); }, 5s));
    }

    EXPECT_TRUE(sawCancel);
    EXPECT_EQ(callback.Reported(), (States{2, 1}));
}

TEST(ServiceStateMonitorTest, TcpProbeSeesAListenerAndNothingBehindAClosedPort) {
    ScriptedTcpServer listener(ScriptedTcpServer::Script().Close());
    const int cancelFd = ::eventfd(0, EFD_CLOEXEC);

    EXPECT_TRUE(TcpReachable("127.0.0.1", listener.Port(), 2000, cancelFd));
    EXPECT_TRUE(TcpReachable("localhost", listener.Port(), 2000, -1));
    EXPECT_FALSE(TcpReachable("127.0.0.1", kelvane::testing::FreeTcpPort(), 2000, cancelFd));
    EXPECT_FALSE(TcpReachable("no-such-host.invalid", 80, 2000, cancelFd));
    const std::uint64_t one = 1;
    ASSERT_EQ(::write(cancelFd, &one, sizeof(one)), 8);
    EXPECT_FALSE(TcpReachable("127.0.0.1", listener.Port(), 2000, cancelFd));
    ::close(cancelFd);
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
        {"http://user@host:81/", {{"host", 81}}},
        {"ftp://host/", std::nullopt},
        {"http://:80/", std::nullopt},
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

TEST(ServiceStateMonitorTest, ConnectorReportsFixedStateAndLetsATestForceIt) {
    kelvane::testing::TemporaryDirectory dir;
    VIConnector sut(nullptr, nullptr,
                    dir.Write("vi.ini",
                              "[connection_state]\nmode=fixed\nstate=3\n"
                              "[transaction T]\nurl=http://h/c\ntoken=t\n"));
    RecordingStateCallback callback;
    EXPECT_EQ(sut.SubscribeTransactionTypeState(kServiceId, &callback, 0), 0U);
    sut.Start();
    ASSERT_TRUE(kelvane::testing::WaitUntil(
        [&] { return sut.GetSessionStatus() == SessionStatus::kOk; }, 5s));

    EXPECT_NE(sut.SubscribeTransactionTypeState(kServiceId, &callback, 0), 0U);
    sut.ForceConnectionState(1);
    sut.ForceConnectionState(1);
    sut.ForceConnectionState(std::nullopt);

    EXPECT_EQ(callback.Reported(), (States{3, 1, 3}));
    EXPECT_EQ(sut.SubscribeTransactionTypeState(kServiceId, nullptr, 0), 0U);
}

}  // namespace
}  // namespace vi_connector
