#include "tcp_connect.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/loopback.hpp"
#include "test_support/scripted_tcp_server.hpp"

namespace vi_connector {
namespace {

using kelvane::testing::ScriptedTcpServer;
using Script = ScriptedTcpServer::Script;

constexpr int kTimeoutMs = 5000;

// Checks the descriptor is what callers rely on and reads the greeting through it.
void ExpectUsableConnection(const SocketResult& result, int family) {
    ASSERT_EQ(result.status, 0U);
    ASSERT_GE(result.fd, 0);
    EXPECT_NE(::fcntl(result.fd, F_GETFD) & FD_CLOEXEC, 0) << "close-on-exec";
    EXPECT_EQ(::fcntl(result.fd, F_GETFL) & O_NONBLOCK, 0) << "blocking";
    sockaddr_storage peer{};
    socklen_t length = sizeof(peer);
    ASSERT_EQ(::getpeername(result.fd, reinterpret_cast<sockaddr*>(&peer), &length), 0);
    EXPECT_EQ(peer.ss_family, family);
    std::string greeting(5, '\0');
    EXPECT_EQ(::read(result.fd, greeting.data(), greeting.size()), 5);
    EXPECT_EQ(greeting, "hello");
    ::close(result.fd);
}

TEST(TcpConnectTest, ConnectsToIpv4AndIpv6LoopbackListenersByAddressOrName) {
    ScriptedTcpServer v4(Script().Send("hello").Close());
    ScriptedTcpServer v6(Script().Send("hello").Close(), ScriptedTcpServer::Family::kIPv6);

    ExpectUsableConnection(TcpConnect("127.0.0.1", v4.Port(), kTimeoutMs), AF_INET);
    ExpectUsableConnection(TcpConnect("::1", v6.Port(), kTimeoutMs), AF_INET6);
    ExpectUsableConnection(TcpConnect("localhost", v4.Port(), kTimeoutMs), AF_INET);
}

TEST(TcpConnectTest, RefusedPortOrUnknownHostGivesNonZeroStatusAndNoDescriptor) {
    const auto port = std::to_string(kelvane::testing::FreeTcpPort());
    // A label over 63 characters cannot be resolved, so no query leaves the host.
    const std::string name = std::string(64, 'a') + ".invalid";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"127.0.0.1", "cannot connect to 127.0.0.1:" + port},
        {name, "cannot resolve '" + name + "'"},
        {"", "cannot resolve"}};
    for (const auto& [host, logged] : cases) {
        SCOPED_TRACE(host);
        csc_logging::LogCapture log;

        const auto result =
            TcpConnect(host, static_cast<std::uint16_t>(std::stoi(port)), kTimeoutMs);

        EXPECT_NE(result.status, 0U);
        EXPECT_EQ(result.fd, -1);
        EXPECT_TRUE(log.Contains("VIConnector: " + logged)) << log.Dump();
    }
}

}  // namespace
}  // namespace vi_connector
