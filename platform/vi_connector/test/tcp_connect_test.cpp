#include "tcp_connect.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "service_state_monitor.hpp"
#include "test_support/loopback.hpp"
#include "test_support/scripted_tcp_server.hpp"

namespace vi_connector {
namespace {

using kelvane::testing::ScriptedTcpServer;
using Script = ScriptedTcpServer::Script;

TEST(TcpConnectTest, GivesABlockingCloseOnExecSocketOrAStatusAndALineNamingTheFailure) {
    // The reachability probe agrees on every row, and gives up once cancelled.
    ScriptedTcpServer v4(Script().Close());
    ScriptedTcpServer v6(Script().Close(), ScriptedTcpServer::Family::kIPv6);
    const auto refused = kelvane::testing::FreeTcpPort();
    // A label over 63 characters cannot be resolved, so no query leaves the host.
    const std::string unresolvable = std::string(64, 'a') + ".invalid";
    struct Case {
        std::string host;
        std::uint16_t port;
        int family;  // of the peer; 0: no connection
        std::string logged;
    };
    const std::vector<Case> cases = {
        {"127.0.0.1", v4.Port(), AF_INET, ""},
        {"::1", v6.Port(), AF_INET6, ""},
        {"localhost", v4.Port(), AF_INET, ""},
        {"127.0.0.1", refused, 0, "cannot connect to 127.0.0.1:" + std::to_string(refused)},
        {unresolvable, 80, 0, "cannot resolve '" + unresolvable + "'"},
        {"", 80, 0, "cannot resolve"},
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
