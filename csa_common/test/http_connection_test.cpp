#include "csa_common/http_connection.hpp"

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

// Records the sockets it closes.
class ClosingHttpConnection : public HttpConnection {
public:
    using HttpConnection::HttpConnection;

    void CloseConnection(int fd) const override {
        closed.push_back(fd);
        HttpConnection::CloseConnection(fd);
    }

    mutable std::vector<int> closed;
};

const std::string kPeerCloses;
const std::string kPollFails("\0", 1);

// A peer in the connection's own time: each chunk arrives at its moment (or closes the
// peer's side, or fails that poll); a poll that no chunk ends takes its whole time-out.
class FakeTimeHttpConnection : public ClosingHttpConnection {
public:
    using Chunks = std::vector<std::pair<std::chrono::milliseconds, std::string>>;

    explicit FakeTimeHttpConnection(Chunks chunks)
        : ClosingHttpConnection(nullptr), chunks_(std::move(chunks)) {
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_), 0);
    }
    ~FakeTimeHttpConnection() override {
        ::close(fds_[1]);
        if (closed.empty()) {
            ::close(fds_[0]);
        }
    }

    std::chrono::steady_clock::time_point Now() const override { return now; }
    int OpenConnection(const std::string&, const std::string&, std::uint16_t) const override {
        return fds_[0];
    }
    int Poll(int timeoutMs, int fd) const override {
        polls += " " + std::to_string(timeoutMs);
        if (HttpConnection::Poll(0, fd) == 0) {
            const auto end = now + std::chrono::milliseconds(timeoutMs);
            if (next_ < chunks_.size() && chunks_[next_].first <= end.time_since_epoch()) {
                now = std::chrono::steady_clock::time_point(chunks_[next_].first);
                const std::string& chunk = chunks_[next_++].second;
                if (chunk == kPollFails) {
                    return -1;
                }
                EXPECT_EQ(chunk.empty() ? ::shutdown(fds_[1], SHUT_WR)
                                        : ::write(fds_[1], chunk.data(), chunk.size()),
                          chunk.empty() ? 0 : static_cast<ssize_t>(chunk.size()));
            } else {
                now = end;
            }
        }
        return HttpConnection::Poll(0, fd);
    }

    /// What the peer has received.
    std::string Received() const {
        std::string all(65536, '\0');
        const ssize_t count = ::recv(fds_[1], all.data(), all.size(), MSG_DONTWAIT);
        all.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return all;
    }

    mutable std::chrono::steady_clock::time_point now{};  // the exchange starts at 0
    mutable std::string polls;                            // each poll's time-out in ms

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

    EXPECT_EQ(sut.Get(protocol, kTransaction, server.Url("/c/1?x=y")), 0);

    EXPECT_EQ(server.Received(0),
              "GET /c/1?x=y HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/html\r\n"
              "Content-Length: 0\r\n\r\n");
    EXPECT_EQ(protocol.ResponseStatusCode(), 200);
    EXPECT_EQ(protocol.ResponsePayload(), "hello");
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
}

TEST_F(HttpConnectionTest, ResponseEndsAt10sGapsOrTheCloseTheExchangeAt60sContinuesAreSkipped) {
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n";
    const std::string continued = "HTTP/1.1 100 Continue\r\n\r\n";
    FakeTimeHttpConnection::Chunks trickle = {{0ms, ok}};
    for (auto at = 9s; at <= 90s; at += 9s) {
        trickle.emplace_back(at, "x");
    }
    // What arrives when, and the outcome: result code, status, payload bytes;
    // bytes per read; each poll's time-out in ms; the time taken; the body the peer got;
    // the socket; the errors logged.
    const std::pair<FakeTimeHttpConnection::Chunks, std::string> cases[] = {
        {{{5s, ok + "body"}}, "0 200 4; read 23; poll 20000 10000 10000; 15 s; 'data' closed"},
        {{}, "0 4095 0; read; poll 20000 10000; 30 s; 'data' closed"},
        {{{0ms, ok + std::string(3181, 'x')}, {1s, kPeerCloses}},
         "0 200 3181; read 1500 1500 200; poll 20000 10000 10000 10000 10000; 1 s; 'data' closed"},
        {{{0ms, continued}, {15s, ok + "ok"}, {16s, kPeerCloses}},
         "0 200 2; read 25 21; poll 20000 10000 10000 20000 10000 10000; 16 s; 'data' closed"},
        // The parse sees 100 and the next receive finds the peer gone: an empty response.
        {{{0ms, continued + ok + "ok"}, {1s, kPeerCloses}},
         "0 4095 0; read 46; poll 20000 10000 10000 20000 10000; 1 s; 'data' closed"},
        // The waits shrink to what is left of the 60 s; then the peer is cut off.
        {trickle,
         "3 0 0; read 19 1 1 1 1 1 1; poll 20000 10000 10000 10000 10000 10000 10000 10000 6000; "
         "60 s; 'data' closed; exchange exceeded 60 s after 25 bytes; exchange ended"},
        {{{0ms, kPollFails}}, "3 0 0; read; poll 20000; 0 s; 'data' open; Receive Timeout!"},
        {{{0ms, ok}, {1s, kPollFails}},
         "3 0 0; read 19; poll 20000 10000 10000; 1 s; 'data' open; Receive Timeout!!"},
        // Not decoded, but named in a warning.
        {{{0ms, "HTTP/1.1 200 OK\r\nTRANSFER-encoding:gzip, Chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n"},
          {1s, kPeerCloses}},
         "0 200 12; read 64; poll 20000 10000 10000; 1 s; 'data' closed; chunked"},
        // Without a blank the code is read from the first three bytes ("HTT").
        {{{0ms, "HTTP/1.1\r\nX:1\r\n\r\n"}, {1s, kPeerCloses}},
         "stoi 0 0; read 17; poll 20000 10000 10000; 1 s; 'data' closed"},
    };
    for (const auto& [chunks, outcome] : cases) {
        log.Clear();
        HttpProtocol protocol;
        protocol.SetOption(HttpOption::Payload, "data");
        const FakeTimeHttpConnection sut(chunks);

        std::string seen;
        try {
            seen = std::to_string(sut.Post(protocol, kTransaction, "http://h/"));
        } catch (const std::invalid_argument& e) {
            seen = e.what();
        }

        std::string reads;
        std::string errors;
        for (const auto& record : log.Records()) {
            if (record.text.rfind("HttpConnection: Read ", 0) == 0) {
                reads += " " + record.text.substr(21, record.text.find(' ', 21) - 21);
            }
            if (record.level == LogLevel::kError) {
                errors += "; " + record.text.substr(16);
            }
            if (record.level == LogLevel::kWarning &&
                record.text.find("'Transfer-Encoding: chunked'") != std::string::npos) {
                errors += "; chunked";
            }
        }
        const std::string received = sut.Received();
        seen += " " + std::to_string(protocol.ResponseStatusCode()) + " " +
                std::to_string(protocol.ResponsePayload().size()) + "; read" + reads + "; poll" +
                sut.polls + "; " + std::to_string(sut.now.time_since_epoch() / 1s) + " s; '" +
                received.substr(received.find("\r\n\r\n") + 4) + "' " +
                (sut.closed.empty() ? "open" : "closed") + errors;
        EXPECT_EQ(seen, outcome);
    }
}

TEST_F(HttpConnectionTest, ResponseArrivesWholeAcrossReadsUpToTheSizeBound) {
    // Responses of exactly the bound and one byte more.
    for (const std::size_t size :
         {HttpConnection::kMaxResponseBytes - 19, HttpConnection::kMaxResponseBytes - 18}) {
        SCOPED_TRACE(size);
        std::string body(size, '\0');
        for (std::size_t i = 0; i < size; ++i) {
            body[i] = static_cast<char>(i % 251);  // a read out of place shows
        }
        const std::string response = "HTTP/1.1 200 OK\r\n\r\n" + body;
        ScriptedTcpServer server(Script()
                                     .ReceiveRequest()
                                     .Send(response.substr(0, 700))
                                     .Pause(20ms)
                                     .Send(response.substr(700))
                                     .Close());
        HttpProtocol protocol;
        const ClosingHttpConnection sut(connector);

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
    EXPECT_TRUE(connector->calls.empty());
    EXPECT_EQ(sut.Post(protocol, "other", "http://[::1]:8080/x?q"), 1);

    EXPECT_EQ(connector->calls.at(0).transactionTypeId, "other");
    EXPECT_EQ(connector->calls.at(0).host, "::1");
    EXPECT_EQ(connector->calls.at(0).port, 8080);
    EXPECT_EQ(protocol.GET().substr(0, 32), "GET /x?q HTTP/1.1\r\nHost: [::1]\r\n");
    EXPECT_EQ(log.Count(LogLevel::kError, "HttpConnection: Connection failed!"), 1U);
    EXPECT_LT(log.IndexOf("Connection not established. Status: 7"),
              log.IndexOf("Connection failed!"));
}

TEST(UrlParserTest, SplitsTheUrlOrNamesWhatIsMissing) {
    // Protocol, host, port and path, then the lines logged.
    const std::pair<std::string, std::string> cases[] = {
        {"http://10.0.0.1:8443/a/b?x=1", "http|10.0.0.1|8443|/a/b?x=1"},
        {"HTTPS://h/p",
         "HTTPS|h|443|/p; Received URL missing port number. Default HTTPS port used: 443"},
        {"http://h", "http|h|80|; Received URL missing port number. Default HTTP port used: 80"},
        {"http://[::1]:8080/x", "http|::1|8080|/x"},
        {"http://h:80x/p", "http|h|80|/p"},
        {"http://[::1/x?a=]", "; URL parsing failed! Domain not found!"},
        {"http://[::1]x/", "; URL parsing failed! Domain not found!"},
        {"http://:80/p", "; URL parsing failed! Domain not found!"},
        {"backend.example/p", "; URL parsing failed! URL prefix not found!"},
        {"http://h:", "; URL parsing failed! Port number not found!"},
        {"http://h:abc/p", "; URL parsing failed! Not able to parse port number: abc"},
        {"http://h:99999999999/p",
         "; URL parsing failed! Not able to parse port number: 99999999999"},
        {"ftp://h/p", "; URL parsing failed! Unsupported protocol: ftp"},
    };
    for (const auto& [url, outcome] : cases) {
        LogCapture log;

        const ParsedUrl parsed = HttpConnection::UrlParser(url);

        std::string seen = parsed.host.empty()
                               ? ""
                               : parsed.protocol + "|" + parsed.host + "|" +
                                     std::to_string(parsed.port) + "|" + parsed.path;
        for (const auto& text : log.Texts()) {
            seen += "; " + text;
        }
        EXPECT_EQ(seen, outcome) << url;
    }
}

}  // namespace
}  // namespace csa_common
