// The receive time-outs at their real length: a response ends 10 s after its
// last byte, and a silent server is given 20 s and then 10 s more.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "csa_common/http_connection.hpp"
#include "csc_logging/log_capture.hpp"
#include "test_support/scripted_tcp_server.hpp"
#include "vi_connector/vi_connector.hpp"

namespace csa_common {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogCapture;
using csc_logging::LogLevel;
using kelvane::testing::ScriptedTcpServer;
using Clock = std::chrono::steady_clock;
using Script = ScriptedTcpServer::Script;

constexpr const char* kTransaction = "TTVI-Kelvane-C003.COzelkDlcDownload";

class HostConnector : public vi_connector::VIConnector {
public:
    HostConnector() : VIConnector(NoConfiguration{}) {}
};

class HttpConnectionSlowTest : public ::testing::Test {
protected:
    std::shared_ptr<HostConnector> connector = std::make_shared<HostConnector>();
    LogCapture log;
};

TEST_F(HttpConnectionSlowTest, ServerThatKeepsTheConnectionOpenEndsTenSecondsAfterTheLastByte) {
    ScriptedTcpServer server(Script()
                                 .ReceiveRequest()
                                 .Send("HTTP/1.1 200 OK\r\n\r\nfirst")
                                 .Pause(2s)
                                 .Send("-second")
                                 .KeepOpen());
    HttpProtocol protocol;
    const HttpConnection sut(connector);
    const auto started = Clock::now();

    const auto code = sut.Post(protocol, kTransaction, server.Url("/d"));

    const auto elapsed = Clock::now() - started;
    EXPECT_EQ(code, 0);
    EXPECT_EQ(protocol.ResponsePayload(), "first-second");
    EXPECT_GE(elapsed, 12s);
    EXPECT_LT(elapsed, 17s);
    EXPECT_TRUE(server.WaitForFinished(1, 5s)) << "the client closes the socket";
}

TEST_F(HttpConnectionSlowTest, SilentServerIsGivenTwentyAndThenTenSeconds) {
    ScriptedTcpServer server(Script().ReceiveRequest().KeepOpen());
    HttpProtocol protocol;
    const HttpConnection sut(connector);
    const auto started = Clock::now();

    const auto code = sut.Get(protocol, kTransaction, server.Url("/c"));

    const auto elapsed = Clock::now() - started;
    EXPECT_EQ(code, 0);
    EXPECT_EQ(protocol.ResponseStatusCode(), 4095);
    EXPECT_GE(elapsed, 30s);
    EXPECT_LT(elapsed, 37s);
    EXPECT_EQ(log.Count(LogLevel::kError, ""), 0U);
}

TEST_F(HttpConnectionSlowTest, ContinueInASeparateReadIsSkippedOverOnTheSameSocket) {
    ScriptedTcpServer server(Script()
                                 .ReceiveRequest()
                                 .Send("HTTP/1.1 100 Continue\r\n\r\n")
                                 .Pause(11s)
                                 .Send("HTTP/1.1 200 OK\r\n\r\nfinal")
                                 .Close());
    HttpProtocol protocol;
    const HttpConnection sut(connector);

    const auto code = sut.Get(protocol, kTransaction, server.Url("/c"));

    EXPECT_EQ(code, 0);
    EXPECT_EQ(protocol.ResponseStatusCode(), 200);
    EXPECT_EQ(protocol.ResponsePayload(), "final");
    EXPECT_EQ(server.Connections(), 1U);
    EXPECT_EQ(log.Count("HttpConnection: Received Response"), 2U);
}

}  // namespace
}  // namespace csa_common
