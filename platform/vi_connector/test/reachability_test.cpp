#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "netlink_route_source.hpp"
#include "service_state_monitor.hpp"
#include "tcp_connect.hpp"
#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/scripted_tcp_server.hpp"
#include "test_support/temporary_directory.hpp"
#include "unique_fd/unique_fd.hpp"
#include "vi_connector/vi_connector.hpp"

// The probe behind the connector's state reports and the connect it shares with the
// backend connections, against listeners of the test's own. Probing a backend that
// comes and goes through the connector is driven end to end by the client's own tests.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ScriptedTcpServer;
using States = std::vector<std::uint8_t>;
using unique_fd::UniqueFd;

constexpr const char* kServiceId = "TTVI-Kelvane-C003";

struct RecordingStateCallback : VIServiceControllerCallbackIf {
    void VISCSessionStatus(SCSessionStatus) override {}
    void VISCInvocationURL(SCUrlResult) override {}
    void VISCConnectionState(SCConnectionStateUpdate update) override {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(update.transactionTypeId, kServiceId);
        states.push_back(update.state);
    }

    States Reported() {
        std::lock_guard<std::mutex> lock(mutex);
        return states;
    }

    std::mutex mutex;
    States states;
};

using Clock = ServiceStateMonitor::Clock;
using Wakeup = RouteSourceIf::Wakeup;

// The kernel's routes and the clock as the monitor sees them. The monitor moves the
// clock to each of its deadlines up to the limit the test sets, then waits.
class FakeKernel : public RouteSourceIf {
public:
    Clock::time_point Now() {
        std::lock_guard<std::mutex> lock(mutex_);
        return now_;
    }

    /// Sets (or with "" removes) the route to `address` and says so, as an
    /// RTM_NEWROUTE or RTM_DELROUTE would.
    void SetRoute(const std::string& address, const std::string& route) {
        std::lock_guard<std::mutex> lock(mutex_);
        routes_[address] = route;
        announced_ = true;
    }

    /// Lets the monitor act for `span`; returns once it waits for a later time.
    void RunFor(Clock::duration span) {
        std::unique_lock<std::mutex> lock(mutex_);
        limit_ = now_ + span;
        idle_ = false;
        changed_.notify_all();
        EXPECT_TRUE(changed_.wait_for(lock, 10s, [&] { return idle_; }))
            << "the monitor did not settle";
    }

    std::string RouteTo(const std::string& address) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return routes_[address];
    }

    Wakeup Wait(Clock::time_point deadline, int wakeFd) override {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            pollfd wake{wakeFd, POLLIN, 0};
            if (std::exchange(announced_, false)) {
                return Wakeup::kChange;
            }
            if (::poll(&wake, 1, 0) == 1) {
                return Wakeup::kWoken;
            }
            if (deadline <= limit_) {
                now_ = std::max(now_, deadline);
                return Wakeup::kDeadline;
            }
            now_ = limit_;
            idle_ = true;
            changed_.notify_all();
            changed_.wait_for(lock, 2ms);  // the wake descriptor is polled
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Clock::time_point now_{std::chrono::hours(1000)};
    Clock::time_point limit_ = now_;
    std::map<std::string, std::string> routes_;
    bool announced_ = false;
    bool idle_ = false;
};

constexpr const char* kBackend = "192.0.2.10";
constexpr auto kMinute = std::chrono::minutes(1);

// The monitor with the deployed schedule against a fake kernel and a backend that
// answers while `answering` is set. Every probe's time is kept; read it between runs.
struct Watched {
    Watched(const std::string& route, bool answers, std::function<void(int)> duringProbe = {})
        : answering(answers) {
        kernel.SetRoute(kBackend, route);
        sut = std::make_unique<ServiceStateMonitor>(
            [this, duringProbe](int cancelFd) {
                // The first report is the one made on subscribing.
                EXPECT_TRUE(kelvane::testing::WaitUntil([&] { return subscribed.load(); }, 5s));
                probes.push_back(kernel.Now());
                if (duringProbe) {
                    duringProbe(cancelFd);
                }
                return answering.load();
            },
            kBackend, std::move(ownedKernel), ServiceStateMonitor::Schedule{},
            [this] { return kernel.Now(); });
        sut->Subscribe(kServiceId, &callback);
        subscribed = true;
    }

    // Seconds from one probe to the next.
    std::vector<double> Gaps() const {
        std::vector<double> gaps;
        for (std::size_t i = 1; i < probes.size(); ++i) {
            gaps.push_back(std::chrono::duration<double>(probes[i] - probes[i - 1]).count());
        }
        return gaps;
    }

    std::unique_ptr<FakeKernel> ownedKernel = std::make_unique<FakeKernel>();  // the monitor's
    FakeKernel& kernel = *ownedKernel;
    RecordingStateCallback callback;
    std::atomic<bool> answering;
    std::atomic<bool> subscribed{false};
    std::vector<Clock::time_point> probes;
    std::unique_ptr<ServiceStateMonitor> sut;
};

TEST(ServiceStateMonitorTest, IdleAndHealthyADayCostsAtMost200ProbesSpreadByJitter) {
    Watched watched("dev wwan0 via 10.0.0.1", true);
    const auto start = watched.kernel.Now();

    // Events that leave the route as it was (an address lifetime, a neighbour link) cost nothing.
    for (int hour = 0; hour < 24; ++hour) {
        watched.kernel.SetRoute(kBackend, "dev wwan0 via 10.0.0.1");
        watched.kernel.RunFor(std::chrono::hours(1));
    }

    ASSERT_FALSE(watched.probes.empty());
    EXPECT_EQ(watched.probes.front(), start);
    EXPECT_LE(watched.probes.size(), 200U);
    const auto gaps = watched.Gaps();
    for (const double gap : gaps) {
        EXPECT_GE(gap, 0.8 * 600);
        EXPECT_LE(gap, 1.2 * 600);
    }
    EXPECT_GT(
        *std::max_element(gaps.begin(), gaps.end()) - *std::min_element(gaps.begin(), gaps.end()),
        30.0);
    EXPECT_EQ(watched.callback.Reported(), (States{1, 2}));
}

TEST(ServiceStateMonitorTest, NoRouteIsNotConnectedAtOnceAndARouteThatReturnsIsProbedWithin5s) {
    Watched watched("", false);  // nothing answers without a route
    watched.kernel.RunFor(kMinute);

    const auto probesBefore = watched.probes.size();
    const auto returned = watched.kernel.Now();
    watched.answering = true;
    watched.kernel.SetRoute(kBackend, "dev wlan0 via 192.168.1.1");
    watched.kernel.RunFor(5s);
    ASSERT_GT(watched.probes.size(), probesBefore);
    EXPECT_LE(watched.probes[probesBefore] - returned, 5s);

    // The link goes down: not connected, without a probe to say so.
    const auto probesWhileUp = watched.probes.size();
    watched.answering = false;
    watched.kernel.SetRoute(kBackend, "");
    watched.kernel.RunFor(1s);
    EXPECT_EQ(watched.probes.size(), probesWhileUp);

    // Another way out (cellular instead of Wi-Fi) is confirmed before it counts.
    watched.answering = true;
    watched.kernel.SetRoute(kBackend, "dev wwan0 via 10.0.0.1");
    watched.kernel.RunFor(5s);
    EXPECT_EQ(watched.probes.size(), probesWhileUp + 1);
    EXPECT_EQ(watched.callback.Reported(), (States{1, 2, 1, 2}));
}

TEST(ServiceStateMonitorTest, AnUnansweredProbeBacksOffWithJitterAndAFailedConnectionAsksForOne) {
    Watched watched("dev eth0", false);
    watched.kernel.RunFor(30 * kMinute);

    // 5 s doubling up to 5 min, each within ±20 %.
    const auto gaps = watched.Gaps();
    ASSERT_GE(gaps.size(), 8U);
    double expected = 5;
    for (const double gap : gaps) {
        EXPECT_GE(gap, 0.8 * expected);
        EXPECT_LE(gap, 1.2 * expected);
        expected = std::min(expected * 2, 300.0);
    }

    watched.answering = true;
    watched.kernel.RunFor(6 * kMinute);
    const auto answered = watched.probes.size();

    // The backend goes away: the client's failed connection has it probed, not
    // ten minutes of a stale state.
    watched.answering = false;
    watched.sut->ConnectionFailed();
    watched.kernel.RunFor(1s);
    EXPECT_EQ(watched.probes.size(), answered + 1);
    EXPECT_EQ(watched.callback.Reported(), (States{1, 2, 1}));
}

TEST(ServiceStateMonitorTest, FixedStateIsReportedOnceAndDestructionCancelsABlockedProbe) {
    RecordingStateCallback fixedCallback;
    ServiceStateMonitor fixed(ServiceStateMonitor::kConnected);
    fixed.Subscribe(kServiceId, &fixedCallback);
    EXPECT_EQ(fixedCallback.Reported(), (States{2}));

    std::atomic<bool> blocked{false};
    std::atomic<bool> sawCancel{false};
    Watched watched("dev lo", true, [&](int cancelFd) {
        blocked = true;
        pollfd cancel{cancelFd, POLLIN, 0};
        sawCancel = ::poll(&cancel, 1, 10000) == 1;
    });
    ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return blocked.load(); }, 5s));

    watched.sut.reset();

    EXPECT_TRUE(sawCancel);
    EXPECT_EQ(watched.callback.Reported(), (States{1}));
}

TEST(ServiceStateMonitorTest, ABackendThatRefusesTheClientsConnectionIsReportedGoneWithoutWaiting) {
    auto backend = std::make_unique<ScriptedTcpServer>(ScriptedTcpServer::Script().Close());
    const auto port = backend->Port();
    kelvane::testing::TemporaryDirectory dir;
    // The deployed schedule: left alone, the next probe would come in 8 to 12 minutes.
    VIConnector sut(nullptr, nullptr,
                    dir.Write("vi.ini", "[transaction T]\nurl=http://127.0.0.1:" +
                                            std::to_string(port) + "/c\ntoken=t\n"));
    sut.Start();
    sut.Stop();  // joins the start, keeps the configuration
    RecordingStateCallback callback;
    // The first probe may end before the subscription, so the first report may be 2.
    const auto lastReported = [&] {
        const States states = callback.Reported();
        return states.empty() ? 0 : states.back();
    };
    ASSERT_NE(sut.SubscribeTransactionTypeState(kServiceId, &callback, 0), 0U);
    ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return lastReported() == 2; }, 5s));

    backend.reset();
    EXPECT_EQ(sut.SocketConnect("T", "127.0.0.1", port).fd, -1);

    EXPECT_TRUE(kelvane::testing::WaitUntil([&] { return lastReported() == 1; }, 5s));
}

TEST(NetlinkRouteSourceTest, FindsTheRouteTo127001OnTheLoopbackLinkAndWakesOnItsDescriptor) {
    NetlinkRouteSource sut;
    const UniqueFd wakeFd(::eventfd(1, EFD_CLOEXEC));

    EXPECT_EQ(sut.RouteTo("127.0.0.1"), "dev lo");
    EXPECT_NE(sut.Wait(Clock::now() + 10s, wakeFd.Get()), Wakeup::kDeadline);
}

TEST(ServiceStateMonitorTest, ProbeTargetComesFromTheUrlsAuthority) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"http://127.0.0.1:8080/zelk/dlc/challenge", "127.0.0.1 8080"},
        {"https://backend.example/path?q=1", "backend.example 443"},
        {"http://[::1]:9000/x", "::1 9000"},
        {"http://host:99999/", ""},
        {"http://[::1/", ""},
    };
    for (const auto& [url, expected] : cases) {
        const auto target = ProbeTargetFromUrl(url);

        EXPECT_EQ(target ? target->host + " " + std::to_string(target->port) : "", expected) << url;
    }
}

TEST(TcpConnectTest, GivesABlockingCloseOnExecSocketOrAStatusAndALineNamingTheFailure) {
    // The reachability probe agrees on every row, and gives up once cancelled.
    ScriptedTcpServer v4(ScriptedTcpServer::Script().Close());
    ScriptedTcpServer v6(ScriptedTcpServer::Script().Close(), ScriptedTcpServer::Family::kIPv6);
    const auto refused = kelvane::testing::FreeTcpPort();
    // A label over 63 characters cannot be resolved, so no query leaves the host.
    const std::string unresolvable = std::string(64, 'a') + ".invalid";
    // Host, port and the line logged (none: it connects).
    const std::vector<std::tuple<std::string, std::uint16_t, std::string>> cases = {
        {"::1", v6.Port(), ""},
        {"localhost", v4.Port(), ""},
        {"127.0.0.1", refused, "cannot connect to 127.0.0.1:" + std::to_string(refused)},
        {unresolvable, 80, "cannot resolve '" + unresolvable + "'"},
    };
    for (const auto& [host, port, logged] : cases) {
        SCOPED_TRACE(host);
        csc_logging::LogCapture log;

        const auto result = TcpConnect(host, port, 5000);

        EXPECT_EQ(result.status == 0, logged.empty());
        EXPECT_EQ(TcpReachable(host, port, 2000, -1), logged.empty());
        if (!logged.empty()) {
            EXPECT_EQ(result.fd, -1);
            EXPECT_TRUE(log.Contains("VIConnector: " + logged)) << log.Dump();
            continue;
        }
        EXPECT_NE(::fcntl(result.fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(::fcntl(result.fd, F_GETFL) & O_NONBLOCK, 0);
        ::close(result.fd);
    }
    const UniqueFd cancelFd(::eventfd(1, EFD_CLOEXEC));
    EXPECT_FALSE(TcpReachable("127.0.0.1", v4.Port(), 2000, cancelFd.Get()));
}

}  // namespace
}  // namespace vi_connector
