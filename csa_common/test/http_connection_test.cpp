#include "csa_common/http_connection.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "csc_logging/log_capture.hpp"
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

// The real receive logic with the poll time-outs shrunk twentyfold (the 20 s
// and 10 s waits take 1 s and 0.5 s), or with scripted poll results; records
// what the code asked for.
class TimeScaledHttpConnection : public HttpConnection {
public:
    explicit TimeScaledHttpConnection(std::shared_ptr<vi_connector::VIConnector> viConnector,
                                      std::vector<int> pollResults = {})
        : HttpConnection(std::move(viConnector)), pollResults_(std::move(pollResults)) {}

    int Poll(int timeoutMs, int fd) const override {
        requestedTimeouts.push_back(timeoutMs);
        if (requestedTimeouts.size() <= pollResults_.size()) {
            return pollResults_[requestedTimeouts.size() - 1];
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

// A peer in the connection's own time, over a socket pair: each chunk arrives
// at its moment (an empty one closes the peer's side), and a poll that no
// chunk ends lets its whole time-out pass at once.
class FakeTimeHttpConnection : public HttpConnection {
public:
    using Chunks = std::vector<std::pair<std::chrono::milliseconds, std::string>>;

    explicit FakeTimeHttpConnection(Chunks chunks)
        : HttpConnection(nullptr), chunks_(std::move(chunks)) {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_), 0);
    }
    ~FakeTimeHttpConnection() override {
        ::close(fds_[1]);
        if (!closed) {
            ::close(fds_[0]);
        }
    }

    std::chrono::steady_clock::time_point Now() const override { return now; }
    int OpenConnection(const std::string&, const std::string&, std::uint16_t) const override {
        return fds_[0];
    }
    int Poll(int timeoutMs, int fd) const override {
        requestedTimeouts.push_back(timeoutMs);
        if (HttpConnection::Poll(0, fd) == 0) {
            const auto end = now + std::chrono::milliseconds(timeoutMs);
            if (next_ < chunks_.size() && Start() + chunks_[next_].first <= end) {
                now = Start() + chunks_[next_].first;
                const std::string& chunk = chunks_[next_++].second;
                EXPECT_EQ(chunk.empty() ? ::shutdown(fds_[1], SHUT_WR)
                                        : ::write(fds_[1], chunk.data(), chunk.size()),
                          chunk.empty() ? 0 : static_cast<ssize_t>(chunk.size()));
            } else {
                now = end;
            }
        }
        return HttpConnection::Poll(0, fd);
    }
    void CloseConnection(int fd) const override {
        closed = true;
        HttpConnection::CloseConnection(fd);
    }

    static std::chrono::steady_clock::time_point Start() { return {}; }

    mutable std::chrono::steady_clock::time_point now = Start();
    mutable std::vector<int> requestedTimeouts;
    mutable bool closed = false;

private:
    Chunks chunks_;
    mutable std::size_t next_ = 0;
    int fds_[2] = {-1, -1};
};

class HttpConnectionTest : public ::testing::Test {
protected:
    std::shared_ptr<RecordingVIConnector> connector = std::make_shared<RecordingVIConnector>();
    LogCapture log;
};

TEST_F(HttpConnectionTest, ExchangeSendsTheRequestAndReadsTheAnswerUntilThePeerCloses) {
    ScriptedTcpServer server(Script()
                                 .ReceiveRequest()
                                 .Send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello")
                                 .Close());
    HttpProtocol protocol;
    const HttpConnection sut(connector);
    const auto started = std::chrono::steady_clock::now();

    EXPECT_EQ(sut.Get(protocol, kTransaction, server.Url("/c/1?x=y")), 0);

    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    EXPECT_EQ(server.Received(0),
              "GET /c/1?x=y HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/html\r\n"
              "Content-Length: 0\r\n\r\n");
    EXPECT_EQ(protocol.ResponseStatusCode(), 200);
    EXPECT_EQ(protocol.ResponsePayload(), "hello");
    EXPECT_EQ(connector->calls.at(0).transactionTypeId, kTransaction);
    const std::string port = std::to_string(server.Port());
    const std::vector<std::string> expected = {
        "HttpConnection: Connecting to 127.0.0.1:" + port + "\\n\\n",
        "HttpConnection: Connection established to 127.0.0.1:" + port,
        "HttpConnection: Read 43 bytes from socket",
        "HttpConnection: Reception ended",
        "HttpConnection: Total received 43 bytes from socket",
        "HttpConnection: Received Response\\n-----\\nHTTP/1.1 200 OK\\r\\nContent-Length: "
        "5\\n-----\\n\\n",
        "HttpConnection: Received payload 5 bytes\\n\\n"};
    EXPECT_EQ(log.Texts(), expected);

    // Test only opens and closes a connection.
    EXPECT_EQ(sut.Test("other", server.Url()), 0);
    ASSERT_TRUE(server.WaitForFinished(2, 5s));
    EXPECT_EQ(server.Received(1), "");
    EXPECT_EQ(log.Count(LogLevel::kInfo, "HttpConnection: Connection succeeded!"), 1U);
}

TEST_F(HttpConnectionTest, ResponseEndsAfterA10sGapOrTheCloseAndAnExchangeAfter60sAtTheLatest) {
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n";
    FakeTimeHttpConnection::Chunks trickle = {{0ms, ok}};
    for (auto at = 9s; at <= 90s; at += 9s) {
        trickle.emplace_back(at, "x");
    }
    // What arrives when, and the outcome: result code, status, payload bytes; bytes per
    // read; each poll's time-out in ms; the time the exchange took.
    const std::pair<FakeTimeHttpConnection::Chunks, std::string> cases[] = {
        {{{5s, ok + "body"}}, "0 200 4; read 23; poll 20000 10000 10000; 15 s"},
        {{}, "0 4095 0; read; poll 20000 10000; 30 s"},
        {{{0ms, ok + std::string(3181, 'x')}, {1s, ""}},
         "0 200 3181; read 1500 1500 200; poll 20000 10000 10000 10000 10000; 1 s"},
        {{{0ms, "HTTP/1.1 100 Continue\r\n\r\n"}, {15s, ok + "ok"}, {16s, ""}},
         "0 200 2; read 25 21; poll 20000 10000 10000 20000 10000 10000; 16 s"},
        // The waits shrink to what is left of the 60 s; then the peer is cut off.
        {trickle,
         "3 0 0; read 19 1 1 1 1 1 1; poll 20000 10000 10000 10000 10000 10000 10000 10000 6000; "
         "60 s"},
    };
    for (const auto& [chunks, outcome] : cases) {
        log.Clear();
        HttpProtocol protocol;
        const FakeTimeHttpConnection sut(chunks);

        const int code = sut.Get(protocol, kTransaction, "http://h/");

        std::string seen = std::to_string(code) + " " +
                           std::to_string(protocol.ResponseStatusCode()) + " " +
                           std::to_string(protocol.ResponsePayload().size()) + "; read";
        for (const std::string& line : log.Texts()) {
            if (line.rfind("HttpConnection: Read ", 0) == 0) {
                seen += " " + line.substr(21, line.find(' ', 21) - 21);
            }
        }
        seen += "; poll";
        for (const int timeout : sut.requestedTimeouts) {
            seen += " " + std::to_string(timeout);
        }
        const auto took = sut.now - FakeTimeHttpConnection::Start();
        EXPECT_EQ(seen + "; " + std::to_string(took / 1s) + " s", outcome);
        EXPECT_TRUE(sut.closed);
        EXPECT_EQ(log.Count(LogLevel::kError, "exchange exceeded 60 s after 25 bytes"),
                  code == 3 ? 1U : 0U);
    }
}

TEST_F(HttpConnectionTest, ResponseArrivesWholeAcrossReadsUpToTheSizeBound) {
    for (const std::size_t size : {std::size_t{100000}, HttpConnection::kMaxResponseBytes}) {
        SCOPED_TRACE(size);
        std::string body;
        for (int i = 0; body.size() < size; ++i) {
            body += std::to_string(i) + '\0';
        }
        const std::string response = "HTTP/1.1 200 OK\r\n\r\n" + body;
        ScriptedTcpServer server(Script()
                                     .ReceiveRequest()
                                     .Send(response.substr(0, 700))
                                     .Pause(20ms)
                                     .Send(response.substr(700))
                                     .Close());
        HttpProtocol protocol;
        const TimeScaledHttpConnection sut(connector);

        const auto code = sut.Get(protocol, kTransaction, server.Url());

        const bool bounded = response.size() > HttpConnection::kMaxResponseBytes;
        EXPECT_EQ(code, bounded ? 3 : 0);
        EXPECT_EQ(protocol.ResponsePayload(), bounded ? "" : body);
        EXPECT_EQ(sut.closed.size(), 1U) << "a peer still sending is cut off";
        EXPECT_EQ(log.Count(LogLevel::kError, "HttpConnection: response exceeds 1048576 bytes"),
                  bounded ? 1U : 0U);
    }
}

TEST_F(HttpConnectionTest, UrlNamesTheTargetElseCode2AndAFailedConnectGivesCode1) {
    connector->fixedResult = vi_connector::SocketResult{7, -1};
    HttpProtocol protocol;
    const HttpConnection sut(connector);

    EXPECT_EQ(sut.Get(protocol, kTransaction, "backend.example/path"), 2);
    EXPECT_EQ(sut.Test(kTransaction, "http://h:x/"), 2);
    EXPECT_TRUE(connector->calls.empty());
    EXPECT_EQ(sut.Post(protocol, "other", "http://[::1]:8080/x?q"), 1);
    EXPECT_FALSE(sut.Test());

    EXPECT_EQ(connector->calls.at(0).transactionTypeId, "other");
    EXPECT_EQ(connector->calls.at(0).host, "::1");
    EXPECT_EQ(connector->calls.at(0).port, 8080);
    EXPECT_EQ(protocol.GET().substr(0, 32), "GET /x?q HTTP/1.1\r\nHost: [::1]\r\n");
    EXPECT_EQ(log.Count(LogLevel::kError, "HttpConnection: Connection failed!"), 2U);
    EXPECT_LT(log.IndexOf("Connection not established. Status: 7"),
              log.IndexOf("Connection failed!"));
}

TEST_F(HttpConnectionTest, ContinuesAreSkippedAndPutSendsItsBodyAfterOne) {
    using Call = std::uint8_t (HttpConnection::*)(HttpProtocol&, const std::string&,
                                                  const std::string&) const;
    const Call post = &HttpConnection::Post;
    const Call put = &HttpConnection::Put;
    const std::string fields = " /p HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/html\r\n";
    const std::string posted = "POST" + fields + "Content-Length: 4\r\n\r\ndata";
    const std::string putHeader =
        "PUT" + fields + "Expect: 100-continue\r\nContent-Length: 4\r\n\r\n";
    const std::string continued = "HTTP/1.1 100 Continue\r\n\r\n";
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n";
    const struct {
        const char* name;
        Call call;
        Script script;
        std::uint16_t status;
        std::string payload;
        std::string received;
        bool inlinePut = false;
        bool chunked = false;
    } cases[] = {
        // Not decoded, but named in a warning.
        {"chunked answer", post,
         Script()
             .ReceiveRequest()
             .Send("HTTP/1.1 200 OK\r\nTRANSFER-encoding:gzip, Chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n")
             .Close(),
         200, "2\r\nok\r\n0\r\n\r\n", posted, false, true},
        // The parse sees 100 and the next receive finds the peer gone: an empty response.
        {"continue and answer in one read", post,
         Script().ReceiveRequest().Send(continued + ok + "ok").Close(), 4095, "", posted},
        {"PUT sends its body after continue", put,
         Script().ReceiveHeader().Send(continued).ReceiveBytes(4).Send(ok).Close(), 200, "",
         putHeader + "data"},
        {"PUT refused before continue", put,
         Script().ReceiveHeader().Send("HTTP/1.1 413 Too Large\r\n\r\n").KeepOpen(), 413, "",
         putHeader},
        // An inline body goes with the header, and again after a continue.
        {"inline PUT", put,
         Script().ReceiveRequest().Send(continued).ReceiveBytes(4).Send(ok).Close(), 200, "",
         "PUT" + fields + "Content-Length: 4\r\n\r\ndatadata", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedTcpServer server(c.script);
        HttpProtocol protocol;
        protocol.SetOption(HttpOption::Payload, "data");
        if (c.inlinePut) {
            protocol.SetOption(HttpOption::InlinePutPayload);
        }
        const TimeScaledHttpConnection sut(connector);
        log.Clear();

        EXPECT_EQ((sut.*c.call)(protocol, kTransaction, server.Url("/p")), 0);

        EXPECT_EQ(protocol.ResponseStatusCode(), c.status);
        EXPECT_EQ(protocol.ResponsePayload(), c.payload);
        ASSERT_TRUE(server.WaitForFinished(1, 5s)) << "the client closes the socket";
        EXPECT_EQ(server.Received(0), c.received);
        EXPECT_EQ(server.Connections(), 1U);
        EXPECT_EQ(log.Count(LogLevel::kError, ""), 0U);
        EXPECT_EQ(log.Count(LogLevel::kWarning, "'Transfer-Encoding: chunked'"),
                  c.chunked ? 1U : 0U);
        EXPECT_EQ(log.Count(LogLevel::kDebug, "HttpConnection: Sent payload 4 bytes\\n\\n"),
                  c.call == put && c.status == 200 ? 1U : 0U);
    }
}

TEST_F(HttpConnectionTest, PollErrorsGiveCode3AndLeaveTheSocketOpen) {
    const std::pair<std::vector<int>, std::string> cases[] = {
        {{-1}, "HttpConnection: Receive Timeout!"}, {{1, -1}, "HttpConnection: Receive Timeout!!"}};
    for (const auto& [polls, error] : cases) {
        connector->fixedResult =
            vi_connector::SocketResult{0, ::open("/dev/null", O_WRONLY | O_CLOEXEC)};
        HttpProtocol protocol;
        const TimeScaledHttpConnection sut(connector, polls);

        EXPECT_EQ(sut.Get(protocol, kTransaction, "http://h:80/"), 3);

        EXPECT_TRUE(sut.closed.empty());
        EXPECT_EQ(log.Texts().back(), error);
        ::close(connector->fixedResult->fd);
    }
}

TEST_F(HttpConnectionTest, StatusWithoutDigitsEscapesButTheSocketIsClosed) {
    // Without a blank the code is read from the first three bytes ("HTT").
    ScriptedTcpServer server(Script().ReceiveRequest().Send("HTTP/1.1\r\nX:1\r\n\r\n").Close());
    HttpProtocol protocol;
    const TimeScaledHttpConnection sut(connector);

    EXPECT_THROW(sut.Get(protocol, kTransaction, server.Url()), std::invalid_argument);

    EXPECT_EQ(sut.closed.size(), 1U);
}

TEST(UrlParserTest, SplitsTheUrlOrNamesWhatIsMissing) {
    const struct {
        std::string url;
        std::string parts;  // protocol, host, port and path; empty for a failure
        std::string message;
    } cases[] = {
        {"http://10.0.0.1:8443/a/b?x=1", "http|10.0.0.1|8443|/a/b?x=1", ""},
        {"HTTPS://h/p", "HTTPS|h|443|/p",
         "Received URL missing port number. Default HTTPS port used: 443"},
        {"http://h", "http|h|80|", "Received URL missing port number. Default HTTP port used: 80"},
        {"http://[::1]:8080/x", "http|::1|8080|/x", ""},
        {"http://h:80x/p", "http|h|80|/p", ""},
        {"http://[::1/x?a=]", "", "URL parsing failed! Domain not found!"},
        {"http://[::1]x/", "", "URL parsing failed! Domain not found!"},
        {"http://:80/p", "", "URL parsing failed! Domain not found!"},
        {"backend.example/p", "", "URL parsing failed! URL prefix not found!"},
        {"http://h:", "", "URL parsing failed! Port number not found!"},
        {"http://h:abc/p", "", "URL parsing failed! Not able to parse port number: abc"},
        {"http://h:99999999999/p", "",
         "URL parsing failed! Not able to parse port number: 99999999999"},
        {"ftp://h/p", "", "URL parsing failed! Unsupported protocol: ftp"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        LogCapture log;

        const ParsedUrl parsed = HttpConnection::UrlParser(c.url);

        EXPECT_EQ(parsed.host.empty() ? ""
                                      : parsed.protocol + "|" + parsed.host + "|" +
                                            std::to_string(parsed.port) + "|" + parsed.path,
                  c.parts);
        EXPECT_EQ(log.Count(c.message), c.message.empty() ? 0U : 1U);
    }
}

}  // namespace
}  // namespace csa_common
