#include "csa_common/http_connection.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/loopback.hpp"
#include "test_support/recording_vi_connector.hpp"
#include "test_support/scripted_tcp_server.hpp"

namespace csa_common {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using csc_logging::LogCapture;
using csc_logging::LogLevel;
using kelvane::testing::RecordingVIConnector;
using kelvane::testing::ScriptedTcpServer;
using Script = ScriptedTcpServer::Script;

constexpr const char* kTransaction = "TTVI-Kelvane-C003.COzelkDlcChallenge";

// The real receive logic with the poll time-outs shrunk twentyfold, so that
// the 20 s and 10 s waits take 1 s and 0.5 s, or with scripted poll results;
// records what the code asked for.
class TimeScaledHttpConnection : public HttpConnection {
public:
    explicit TimeScaledHttpConnection(std::shared_ptr<vi_connector::VIConnector> viConnector,
                                      std::vector<int> pollResults = {})
        : HttpConnection(std::move(viConnector)), pollResults_(std::move(pollResults)) {}

    int Poll(int timeoutMs, int fd) const override {
        requestedTimeouts.push_back(timeoutMs);
        if (!pollResults_.empty()) {
            return requestedTimeouts.size() <= pollResults_.size()
                       ? pollResults_[requestedTimeouts.size() - 1]
                       : 0;
        }
        return HttpConnection::Poll(timeoutMs / 20, fd);
    }
    void CloseConnection(int fd) const override {
        closed.push_back(fd);
        HttpConnection::CloseConnection(fd);
    }

    mutable std::vector<int> requestedTimeouts;
    mutable std::vector<int> closed;

private:
    std::vector<int> pollResults_;
};

class HttpConnectionTest : public ::testing::Test {
protected:
    // The connector hands out one end of a socket pair whose peer has already
    // sent the answer; returns the peer's end.
    int PeerThatAnswered(const std::string& answer) {
        int pair[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
        EXPECT_EQ(::write(pair[1], answer.data(), answer.size()),
                  static_cast<ssize_t>(answer.size()));
        if (!answer.empty()) {
            ::shutdown(pair[1], SHUT_WR);
        }
        connector->fixedResult = vi_connector::SocketResult{0, pair[0]};
        return pair[1];
    }

    std::shared_ptr<RecordingVIConnector> connector = std::make_shared<RecordingVIConnector>();
    LogCapture log;
};

TEST_F(HttpConnectionTest, GetAgainstAServerThatAnswersAndClosesEndsAtOnce) {
    ScriptedTcpServer server(Script()
                                 .ReceiveRequest()
                                 .Send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")
                                 .Close());
    HttpProtocol protocol;
    const HttpConnection sut(connector);
    const auto started = std::chrono::steady_clock::now();

    const auto code = sut.Get(protocol, kTransaction, server.Url("/c/1?x=y"));

    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(server.Received(0),
              "GET /c/1?x=y HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/html\r\n"
              "Content-Length: 0\r\n\r\n");
    EXPECT_EQ(protocol.ResponseStatusCode(), 200);
    EXPECT_EQ(protocol.ResponseHeader(), "HTTP/1.1 200 OK\r\nContent-Length: 5");
    EXPECT_EQ(protocol.ResponsePayload(), "hello");
    ASSERT_EQ(connector->calls.size(), 1U);
    EXPECT_EQ(connector->calls[0].transactionTypeId, kTransaction);
    EXPECT_EQ(connector->calls[0].host, "127.0.0.1");
    EXPECT_EQ(connector->calls[0].port, server.Port());
    const std::string port = std::to_string(server.Port());
    EXPECT_TRUE(
        log.Contains(LogLevel::kInfo, "HttpConnection: Connecting to 127.0.0.1:" + port + "\n\n"));
    EXPECT_TRUE(log.Contains(LogLevel::kInfo,
                             "HttpConnection: Connection established to 127.0.0.1:" + port));
    EXPECT_TRUE(log.Contains(LogLevel::kInfo, "HttpConnection: Read 43 bytes from socket"));
    EXPECT_TRUE(log.Contains(LogLevel::kInfo, "HttpConnection: Reception ended"));
    EXPECT_TRUE(
        log.Contains(LogLevel::kInfo, "HttpConnection: Total received 43 bytes from socket"));
    EXPECT_TRUE(log.Contains(LogLevel::kDebug,
                             "HttpConnection: Received Response\n-----\n"
                             "HTTP/1.1 200 OK\r\nContent-Length: 5\n-----\n\n"));
    EXPECT_TRUE(log.Contains(LogLevel::kDebug, "HttpConnection: Received payload 5 bytes\n\n"));
    EXPECT_EQ(log.Count(LogLevel::kError, ""), 0U);
}

TEST_F(HttpConnectionTest, PostWithoutUrlUsesTheConnectionsOwnTargetAndCallersHeaders) {
    ScriptedTcpServer server(
        Script().ReceiveRequest().Send("HTTP/1.1 201 Created\r\n\r\n").Close());
    HttpProtocol protocol;
    protocol.SetOption(HttpOption::Uri, "/own");
    protocol.SetOption(HttpOption::Host, "backend.example:8443");
    protocol.SetOption(HttpOption::Payload, "\x01\x00\x02"s);
    const HttpConnection sut("127.0.0.1", server.Port(), "own-transaction", connector);

    const bool ok = sut.Post(&protocol);

    EXPECT_TRUE(ok);
    EXPECT_EQ(server.Received(0),
              "POST /own HTTP/1.1\r\nHost: backend.example:8443\r\nContent-Type: text/html\r\n"
              "Content-Length: 3\r\n\r\n\x01\x00\x02"s);
    EXPECT_EQ(protocol.ResponseStatusCode(), 201);
    ASSERT_EQ(connector->calls.size(), 1U);
    EXPECT_EQ(connector->calls[0].transactionTypeId, "own-transaction");
}

TEST_F(HttpConnectionTest, ResponseLargerThanTheReceiveBufferArrivesWhole) {
    std::string body;
    for (int i = 0; body.size() < 100000; ++i) {
        body += std::to_string(i) + '\0';
    }
    const std::string response =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    ScriptedTcpServer server(Script()
                                 .ReceiveRequest()
                                 .Send(response.substr(0, 700))
                                 .Pause(20ms)
                                 .Send(response.substr(700))
                                 .Close());
    HttpProtocol protocol;
    const HttpConnection sut(connector);

    const auto code = sut.Get(protocol, kTransaction, server.Url());

    EXPECT_EQ(code, 0);
    EXPECT_EQ(protocol.ResponsePayload(), body);
    for (const auto& text : log.Texts()) {
        if (text.rfind("HttpConnection: Read ", 0) == 0) {
            EXPECT_LE(std::stoul(text.substr(21)), 1500U) << text;
        }
    }
    EXPECT_TRUE(log.Contains("HttpConnection: Total received " + std::to_string(response.size()) +
                             " bytes from socket"));
}

TEST_F(HttpConnectionTest, RefusedConnectionGivesCode1AndBothErrorLinesWithTheConnectorsStatus) {
    const auto closedPort = kelvane::testing::FreeTcpPort();
    HttpProtocol protocol;
    const HttpConnection sut("127.0.0.1", closedPort, kTransaction, connector);

    const auto code = sut.Get(protocol, kTransaction, "");
    const bool ok = sut.Get(&protocol);

    EXPECT_EQ(code, 1);
    EXPECT_FALSE(ok);
    EXPECT_EQ(log.Count(LogLevel::kError, "HttpConnection: Connection not established. Status: "),
              2U);
    EXPECT_EQ(log.Count(LogLevel::kError, "HttpConnection: Connection failed!"), 2U);
    EXPECT_LT(log.IndexOf("Connection not established"), log.IndexOf("Connection failed!"));
    EXPECT_FALSE(log.Contains("Connection established"));
    // The connector's own status is logged; the missing descriptor decides.
    connector->fixedResult = vi_connector::SocketResult{7, -1};
    EXPECT_EQ(sut.Post(protocol, kTransaction, "http://h:1/"), 1);
    EXPECT_TRUE(
        log.Contains(LogLevel::kError, "HttpConnection: Connection not established. Status: 7"));
}

TEST_F(HttpConnectionTest, Ipv6LiteralConnectsToTheAddressAndKeepsItsBracketsInTheHostHeader) {
    const int peer = PeerThatAnswered("HTTP/1.1 200 OK\r\n\r\n");
    HttpProtocol protocol;
    const TimeScaledHttpConnection sut(connector);

    const auto code = sut.Get(protocol, kTransaction, "http://[::1]:8080/x");

    EXPECT_EQ(code, 0);
    ASSERT_EQ(connector->calls.size(), 1U);
    EXPECT_EQ(connector->calls[0].host, "::1");
    EXPECT_EQ(connector->calls[0].port, 8080);
    char sent[512];
    const ssize_t count = ::read(peer, sent, sizeof sent);
    ASSERT_GT(count, 0);
    EXPECT_NE(std::string(sent, static_cast<std::size_t>(count)).find("\r\nHost: [::1]\r\n"),
              std::string::npos);
    ::close(peer);
}

TEST_F(HttpConnectionTest, UnparsableUrlGivesCode2WithoutConnecting) {
    HttpProtocol protocol;
    const HttpConnection sut(connector);

    EXPECT_EQ(sut.Get(protocol, kTransaction, "backend.example/path"), 2);
    EXPECT_EQ(sut.Put(protocol, kTransaction, "http://:80/"), 2);
    EXPECT_EQ(sut.Test(kTransaction, "http://h:x/"), 2);

    EXPECT_TRUE(connector->calls.empty());
    EXPECT_FALSE(log.Contains("Connecting to"));
}

TEST_F(HttpConnectionTest, TestOpensAndClosesAConnectionWithoutSendingAnything) {
    ScriptedTcpServer server(Script().KeepOpen());
    const HttpConnection sut("127.0.0.1", server.Port(), kTransaction, connector);

    EXPECT_TRUE(sut.Test());
    EXPECT_EQ(sut.Test("other", server.Url()), 0);

    ASSERT_TRUE(server.WaitForFinished(2, 5s));
    EXPECT_EQ(server.Received(0), "");
    EXPECT_EQ(server.Received(1), "");
    EXPECT_EQ(log.Count(LogLevel::kInfo, "HttpConnection: Connection succeeded!"), 2U);
    ASSERT_EQ(connector->calls.size(), 2U);
    EXPECT_EQ(connector->calls[1].transactionTypeId, "other");
}

TEST_F(HttpConnectionTest, InterimContinueIsSkippedOnlyWhenItArrivesInAReadOfItsOwn) {
    // When both answers arrive together the parse sees 100 and the next receive
    // finds the peer gone: an empty response, marked 4095.
    const struct {
        const char* name;
        Script script;
        std::uint16_t status;
        std::string payload;
    } cases[] = {
        {"one read",
         Script()
             .ReceiveRequest()
             .Send("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\nabc")
             .Close(),
         4095, ""},
        {"separate reads",
         Script()
             .ReceiveRequest()
             .Send("HTTP/1.1 100 Continue\r\n\r\n")
             .Pause(1500ms)
             .Send("HTTP/1.1 200 OK\r\n\r\nfinal")
             .Close(),
         200, "final"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedTcpServer server(c.script);
        HttpProtocol protocol;
        const TimeScaledHttpConnection sut(connector);
        log.Clear();

        const auto code = sut.Post(protocol, kTransaction, server.Url());

        EXPECT_EQ(code, 0);
        EXPECT_EQ(protocol.ResponseStatusCode(), c.status);
        EXPECT_EQ(protocol.ResponsePayload(), c.payload);
        EXPECT_EQ(log.Count("HttpConnection: Received Response"), 2U);
        EXPECT_TRUE(log.Contains(LogLevel::kDebug, "-----\nHTTP/1.1 100 Continue\n-----"));
        EXPECT_EQ(server.Connections(), 1U);
    }
}

TEST_F(HttpConnectionTest, ServerThatKeepsTheConnectionOpenEndsAfterTheGap) {
    ScriptedTcpServer server(
        Script().ReceiveRequest().Send("HTTP/1.1 200 OK\r\n\r\nbody").KeepOpen());
    HttpProtocol protocol;
    const TimeScaledHttpConnection sut(connector);

    const auto code = sut.Get(protocol, kTransaction, server.Url());

    EXPECT_EQ(code, 0);
    EXPECT_EQ(protocol.ResponsePayload(), "body");
    EXPECT_EQ(sut.requestedTimeouts, (std::vector<int>{20000, 10000, 10000}));
    EXPECT_EQ(sut.closed.size(), 1U);
    EXPECT_FALSE(log.Contains("Reception ended"));
    EXPECT_TRUE(server.WaitForFinished(1, 5s)) << "the client closes the socket";
}

TEST_F(HttpConnectionTest, SilentServerGivesAnEmptyResponseMarked4095AndCode0) {
    ScriptedTcpServer server(Script().ReceiveRequest().KeepOpen());
    HttpProtocol protocol;
    const TimeScaledHttpConnection sut(connector);

    const auto code = sut.Get(protocol, kTransaction, server.Url());

    EXPECT_EQ(code, 0);
    EXPECT_EQ(protocol.ResponseStatusCode(), 4095);
    EXPECT_EQ(sut.requestedTimeouts, (std::vector<int>{20000, 10000}));
    EXPECT_EQ(log.Count(LogLevel::kError, ""), 0U);
}

TEST_F(HttpConnectionTest, PutSendsItsBodyOnlyAfterContinue) {
    const std::string header =
        "PUT /p HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/html\r\n"
        "Expect: 100-continue\r\nContent-Length: 4\r\n\r\n";
    const std::string inlineHeader =
        "PUT /p HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/html\r\n"
        "Content-Length: 4\r\n\r\n";
    const struct {
        const char* name;
        Script script;
        bool inlinePut;
        std::uint16_t status;
        std::string received;
    } cases[] = {
        {"continue",
         Script()
             .ReceiveHeader()
             .Send("HTTP/1.1 100 Continue\r\n\r\n")
             .ReceiveBytes(4)
             .Send("HTTP/1.1 204 No Content\r\n\r\n")
             .Close(),
         false, 204, header + "data"},
        {"refused before continue",
         Script().ReceiveHeader().Send("HTTP/1.1 413 Too Large\r\n\r\n").KeepOpen(), false, 413,
         header},
        // The body went with the header, and goes again after the continue.
        {"inline",
         Script()
             .ReceiveRequest()
             .Send("HTTP/1.1 100 Continue\r\n\r\n")
             .ReceiveBytes(4)
             .Send("HTTP/1.1 200 OK\r\n\r\n")
             .Close(),
         true, 200, inlineHeader + "datadata"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedTcpServer server(c.script);
        HttpProtocol protocol;
        if (c.inlinePut) {
            protocol.SetOption(HttpOption::InlinePutPayload);
        }
        protocol.SetOption(HttpOption::Payload, "data");
        const TimeScaledHttpConnection sut(connector);
        log.Clear();

        const auto code = sut.Put(protocol, kTransaction, server.Url("/p"));

        EXPECT_EQ(code, 0);
        EXPECT_EQ(protocol.ResponseStatusCode(), c.status);
        ASSERT_TRUE(server.WaitForFinished(1, 5s));
        EXPECT_EQ(server.Received(0), c.received);
        EXPECT_EQ(log.Count(LogLevel::kDebug, "HttpConnection: Sent payload 4 bytes\n\n"),
                  c.status == 413 ? 0U : 1U);
    }
}

TEST_F(HttpConnectionTest, PollErrorsGiveCode3AndLeaveTheSocketOpen) {
    struct Case {
        std::vector<int> polls;
        std::string error;
    };
    for (const auto& c : {Case{{-1}, "HttpConnection: Receive Timeout!"},
                          Case{{1, -1}, "HttpConnection: Receive Timeout!!"}}) {
        const int peer = PeerThatAnswered("");
        const int own = connector->fixedResult->fd;
        HttpProtocol protocol;
        const TimeScaledHttpConnection sut(connector, c.polls);
        log.Clear();

        const auto code = sut.Get(protocol, kTransaction, "http://h:80/");

        EXPECT_EQ(code, 3);
        EXPECT_TRUE(sut.closed.empty());
        EXPECT_EQ(log.Count(LogLevel::kError, "Receive Timeout"), 1U);
        EXPECT_TRUE(log.Contains(LogLevel::kError, c.error));
        EXPECT_EQ(::close(own), 0) << "the descriptor was still open";
        ::close(peer);
    }
}

TEST_F(HttpConnectionTest, StatusWithoutDigitsEscapesButTheSocketIsClosed) {
    const int peer = PeerThatAnswered("HTTP/1.1 OK\r\n\r\n");
    const int own = connector->fixedResult->fd;
    HttpProtocol protocol;
    const TimeScaledHttpConnection sut(connector);

    EXPECT_THROW(sut.Get(protocol, kTransaction, "http://h/"), std::invalid_argument);

    EXPECT_EQ(sut.closed, std::vector<int>{own});
    ::close(peer);
}

struct UrlCase {
    std::string name;
    std::string url;
    ParsedUrl expected;
    std::string message;
};

void PrintTo(const UrlCase& urlCase, std::ostream* out) {
    *out << urlCase.url;
}

class UrlParserTest : public ::testing::TestWithParam<UrlCase> {};

TEST_P(UrlParserTest, SplitsTheUrlAndLogs) {
    const auto& param = GetParam();
    LogCapture log;
    const HttpConnection sut(nullptr);
    ParsedUrl parsed;

    const bool failed = sut.UrlParser(param.url, parsed);
    const ParsedUrl byValue = HttpConnection::UrlParser(param.url);

    EXPECT_EQ(failed, param.expected.host.empty());
    if (!failed) {
        EXPECT_EQ(parsed.protocol, param.expected.protocol);
        EXPECT_EQ(parsed.host, param.expected.host);
        EXPECT_EQ(parsed.port, param.expected.port);
        EXPECT_EQ(parsed.path, param.expected.path);
    }
    EXPECT_EQ(byValue.host, param.expected.host);
    EXPECT_EQ(byValue.port, param.expected.port);
    EXPECT_EQ(byValue.path, param.expected.path);
    if (param.message.empty()) {
        EXPECT_EQ(log.Records().size(), 0U);
    } else {
        EXPECT_TRUE(log.Contains(param.message)) << log.Dump();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Urls, UrlParserTest,
    ::testing::Values(
        UrlCase{"PortPathAndQuery",
                "http://10.0.0.1:8443/a/b?x=1",
                {"http", "10.0.0.1", 8443, "/a/b?x=1"},
                ""},
        UrlCase{"HttpsDefaultPort",
                "https://h/p",
                {"https", "h", 443, "/p"},
                "Received URL missing port number. Default HTTPS port used: 443"},
        UrlCase{"HttpDefaultPortNoPath",
                "http://h",
                {"http", "h", 80, ""},
                "Received URL missing port number. Default HTTP port used: 80"},
        UrlCase{"RootPath", "http://h:1/", {"http", "h", 1, "/"}, ""},
        UrlCase{"Ipv6Literal", "http://[::1]:8080/x", {"http", "::1", 8080, "/x"}, ""},
        UrlCase{"Ipv6LiteralClosedOnlyInThePath",
                "http://[::1/x?a=]",
                {},
                "URL parsing failed! Domain not found!"},
        UrlCase{"NoPrefix", "backend.example/p", {}, "URL parsing failed! URL prefix not found!"},
        UrlCase{"NoHost", "http:///p", {}, "URL parsing failed! Domain not found!"},
        UrlCase{"NoHostBeforePort", "http://:80/p", {}, "URL parsing failed! Domain not found!"},
        UrlCase{
            "ColonWithoutPort", "http://h:/p", {}, "URL parsing failed! Port number not found!"},
        UrlCase{"ColonAtEnd", "http://h:", {}, "URL parsing failed! Port number not found!"},
        UrlCase{"PortNotNumeric",
                "http://h:abc/p",
                {},
                "URL parsing failed! Not able to parse port number: abc"},
        UrlCase{"PortReadLikeStoi", "http://h:80x/p", {"http", "h", 80, "/p"}, ""},
        UrlCase{"QueryWithoutPath", "http://h:8080?x=1", {"http", "h", 8080, ""}, ""},
        UrlCase{"PortBeyondInt",
                "http://h:99999999999/p",
                {},
                "URL parsing failed! Not able to parse port number: 99999999999"},
        UrlCase{
            "UnknownProtocol", "ftp://h/p", {}, "URL parsing failed! Unsupported protocol: ftp"}),
    [](const ::testing::TestParamInfo<UrlCase>& testInfo) { return testInfo.param.name; });

}  // namespace
}  // namespace csa_common
