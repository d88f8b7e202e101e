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

namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ScriptedTcpServer;
using kelvane::testing::TemporaryDirectory;
using Update = VIServiceControllerCallbackIf::SCConnectionStateUpdate;

constexpr const char* kServiceId = "TTVI-Kelvane-C003";

class RecordingStateCallback : public VIServiceControllerCallbackIf {
public:
    void VISCSessionStatus(SCSessionStatus /*status*/) override {}
    void VISCInvocationURL(SCUrlResult /*result*/) override {}
    void VISCConnectionState(SCConnectionStateUpdate update) override {
        std::lock_guard<std::mutex> lock(mutex_);
        updates_.push_back(std::move(update));
        changed_.notify_all();
    }

    std::vector<std::uint8_t> States() const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::uint8_t> states;
        for (const auto& update : updates_) {
            states.push_back(update.state);
        }
        return states;
    }
    std::vector<Update> Updates() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return updates_;
    }
    /// True once the latest report carries `state`.
    bool WaitForState(std::uint8_t state) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(
            lock, 5s, [&] { return !updates_.empty() && updates_.back().state == state; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Update> updates_;
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

    EXPECT_EQ(callback.States(), (std::vector<std::uint8_t>{1, 2, 1}));
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
    EXPECT_EQ(callback.States(), (std::vector<std::uint8_t>{2, 1}));
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
    for (const auto& c : cases) {
        const auto target = ProbeTargetFromUrl(c.url);

        ASSERT_EQ(target.has_value(), c.target.has_value()) << c.url;
        if (target) {
            EXPECT_EQ(target->host, c.target->first) << c.url;
            EXPECT_EQ(target->port, c.target->second) << c.url;
        }
    }
}

std::string ConnectorIni(const std::string& connectionState, const std::string& url) {
    return "[connection_state]\n" + connectionState +
           "[transaction TTVI-Kelvane-C003.COzelkDlcChallenge]\nurl=" + url + "\ntoken=t\n";
}

bool Started(const VIConnector& connector) {
    return kelvane::testing::WaitUntil(
        [&] { return connector.GetSessionStatus() == SessionStatus::kOk; }, 5s);
}

TEST(ServiceStateMonitorTest, ConnectorReportsFixedStateAndLetsATestForceIt) {
    TemporaryDirectory dir;
    VIConnector sut(nullptr, nullptr,
                    dir.Write("vi.ini", ConnectorIni("mode=fixed\nstate=3\n", "http://h/c")));
    RecordingStateCallback callback;
    EXPECT_EQ(sut.SubscribeTransactionTypeState(kServiceId, &callback, 0), 0U);
    sut.Start();
    ASSERT_TRUE(Started(sut));

    RecordingStateCallback other;
    EXPECT_NE(sut.SubscribeTransactionTypeState(kServiceId, &callback, 0), 0U);
    EXPECT_NE(sut.SubscribeTransactionTypeState("other", &other, 0), 0U);
    sut.ForceConnectionState(1);
    sut.ForceConnectionState(1);
    sut.ForceConnectionState(std::nullopt);

    EXPECT_EQ(callback.States(), (std::vector<std::uint8_t>{3, 1, 3}));
    EXPECT_EQ(other.States(), (std::vector<std::uint8_t>{3, 1, 3}));
    EXPECT_EQ(callback.Updates().front().transactionTypeId, kServiceId);
    EXPECT_EQ(other.Updates().back().transactionTypeId, "other");
    EXPECT_EQ(sut.SubscribeTransactionTypeState(kServiceId, nullptr, 0), 0U);
}

TEST(ServiceStateMonitorTest, ConnectorProbesTheFirstTransactionsHost) {
    TemporaryDirectory dir;
    auto listener = std::make_unique<ScriptedTcpServer>(ScriptedTcpServer::Script().Close());
    VIConnector sut(
        nullptr, nullptr,
        dir.Write("vi.ini",
                  ConnectorIni("mode=probe\nprobe_interval_ms=10\n",
                               "http://127.0.0.1:" + std::to_string(listener->Port()) + "/c")));
    sut.Start();
    ASSERT_TRUE(Started(sut));
    RecordingStateCallback callback;

    ASSERT_NE(sut.SubscribeTransactionTypeState(kServiceId, &callback, 0), 0U);

    EXPECT_TRUE(callback.WaitForState(ServiceStateMonitor::kConnected));
    listener.reset();
    EXPECT_TRUE(callback.WaitForState(ServiceStateMonitor::kNotConnected));
}

}  // namespace
}  // namespace vi_connector
