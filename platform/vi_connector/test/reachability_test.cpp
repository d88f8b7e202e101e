#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "service_state_monitor.hpp"
#include "tcp_connect.hpp"
#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/scripted_tcp_server.hpp"

// The probe behind the connector's state reports and the connect it shares with the
// backend connections, against listeners of the test's own. Probing a backend that
// comes and goes through the connector is driven end to end by the client's own tests.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ScriptedTcpServer;
using States = std::vector<std::uint8_t>;

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
    mode = kBlocking;
    ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return blocked.load(); }, 5s));
    sut.reset();

    EXPECT_TRUE(sawCancel);
    EXPECT_TRUE(reported({1, 2, 1}));
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
    // Host, port, the peer's address family (0: no connection) and the line logged.
    const std::vector<std::tuple<std::string, std::uint16_t, int, std::string>> cases = {
        {"127.0.0.1", v4.Port(), AF_INET, ""},
        {"::1", v6.Port(), AF_INET6, ""},
        {"localhost", v4.Port(), AF_INET, ""},
        {"127.0.0.1", refused, 0, "cannot connect to 127.0.0.1:" + std::to_string(refused)},
        {unresolvable, 80, 0, "cannot resolve '" + unresolvable + "'"},
    };
    for (const auto& [host, port, family, logged] : cases) {
        SCOPED_TRACE(host);
        csc_logging::LogCapture log;

        const auto result = TcpConnect(host, port, 5000);

        EXPECT_EQ(result.status == 0, family != 0);
        EXPECT_EQ(TcpReachable(host, port, 2000, -1), family != 0);
        if (family == 0) {
            EXPECT_EQ(result.fd, -1);
            EXPECT_TRUE(log.Contains("VIConnector: " + logged)) << log.Dump();
            continue;
        }
        EXPECT_NE(::fcntl(result.fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(::fcntl(result.fd, F_GETFL) & O_NONBLOCK, 0);
        sockaddr_storage peer{};
        socklen_t length = sizeof(peer);
        ASSERT_EQ(::getpeername(result.fd, reinterpret_cast<sockaddr*>(&peer), &length), 0);
        EXPECT_EQ(peer.ss_family, family);
        ::close(result.fd);
    }
    const int cancelFd = ::eventfd(1, EFD_CLOEXEC);
    EXPECT_FALSE(TcpReachable("127.0.0.1", v4.Port(), 2000, cancelFd));
    ::close(cancelFd);
}

}  // namespace
}  // namespace vi_connector
