#include "backend/backend_connection.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "proto/TTVI_CO_zelkDlcRequest_v3.pb.h"
#include "proto/TTVI_CO_zelkDlcStatusFeedbackRequest_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcChallengeResponse_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcResponse_v3.pb.h"
#include "test_support/loopback.hpp"
#include "test_support/recording_vi_connector.hpp"
#include "test_support/scripted_tcp_server.hpp"

namespace kelvane_client {
namespace {

using namespace std::string_literals;
using csc_logging::LogCapture;
using csc_logging::LogLevel;
using kelvane::testing::RecordingVIConnector;
using kelvane::testing::ScriptedTcpServer;
using Script = ScriptedTcpServer::Script;

constexpr const char* kChallenge = "0A1B2C3D4E5F60718293A4B5C6D7E8F9";

std::string Answer(const std::string& statusLine, const std::string& body) {
    return "HTTP/1.1 " + statusLine + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

// Answers written out by hand, so that the field numbers are checked too; each
// carries fields a newer backend may add (9 varint, 2 or 3 bytes, 15 fixed32).
const std::string kChallengeBody =
    "\x48\x96\x01\x12\x03xyz\x0a\x20"s + kChallenge + "\x7d\x01\x02\x03\x04"s;
const std::string kDownloadBody =
    "\x12\x01"
    "0"
    "\x0a\x08"
    "QUJDRA=="
    "\x1a\x01"
    "z";

RequestParams SampleParams() {
    RequestParams params;
    params.tesmoChallenge = "AB";
    params.diagnosticID = "D";
    params.partNumber = "P";
    params.tesmoIdString = "T";
    params.zelkVin = {'V', 'I', 'N'};
    params.trainingCounter = 42;
    params.pssHash = {0x0A, 0xFF};
    params.identityHash = {0x01};
    return params;
}

// The serialised SampleParams(), written out by hand.
const std::string kSampleWire =
    "\x0a\x02"
    "AB"
    "\x12\x01"
    "D"
    "\x1a\x01"
    "P"
    "\x22\x01"
    "T"
    "\x2a\x03"
    "VIN"
    "\x32\x04"
    "002A"
    "\x3a\x04"
    "0AFF"
    "\x42\x02"
    "01";

std::string Header(const std::string& method, const std::string& target,
                   const std::string& contentType, const std::string& accept,
                   std::size_t contentLength) {
    return method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: " + contentType +
           "\r\n" + (accept.empty() ? "" : "Accept: " + accept + "\r\n") +
           "Authorization: Bearer tok-123\r\nConnection: close\r\nContent-Length: " +
           std::to_string(contentLength) + "\r\n\r\n";
}

class BackendConnectionTest : public ::testing::Test {
protected:
    std::shared_ptr<RecordingVIConnector> connector = std::make_shared<RecordingVIConnector>();
    BackendConnection sut{connector};
    LogCapture log;
};

TEST_F(BackendConnectionTest, ChallengeIsAnEmptyGetAndTheAnswerIsDecoded) {
    ScriptedTcpServer server(
        Script().ReceiveRequest().Send(Answer("200 OK", kChallengeBody)).Close());
    std::string challenge;

    const bool ok = sut.ChallengeRequest("tok-123", server.Url("/zelk/challenge?v=3"), challenge);

    EXPECT_TRUE(ok);
    EXPECT_EQ(challenge, kChallenge);
    EXPECT_EQ(
        server.Received(0),
        Header("GET", "/zelk/challenge?v=3", "application/TTVI_CO_ZelkDlcChallengeRequest_v1+proto",
               "application/TTVI_CT_zelkDlcChallengeResponse_v3+proto", 0));
    ASSERT_EQ(connector->calls.size(), 1U);
    EXPECT_EQ(connector->calls[0].transactionTypeId, "TTVI-Kelvane-C003.COzelkDlcChallenge");
    EXPECT_EQ(log.Count(LogLevel::kError, ""), 0U);
}

TEST_F(BackendConnectionTest, DownloadPostsTheRequestMessageAndReturnsTheContainer) {
    ScriptedTcpServer server(
        Script().ReceiveRequest().Send(Answer("200 OK", kDownloadBody)).Close());
    std::string container;

    const bool ok = sut.DownloadRequest("tok-123", SampleParams(), server.Url("/dl"), container);

    EXPECT_TRUE(ok);
    EXPECT_EQ(container, "QUJDRA==");
    EXPECT_EQ(server.Received(0),
              Header("POST", "/dl", "application/TTVI_CO_zelkDlcRequest_v3+proto",
                     "application/TTVI_CT_zelkDlcResponse_v3+proto", kSampleWire.size()) +
                  kSampleWire);
    ASSERT_EQ(connector->calls.size(), 1U);
    EXPECT_EQ(connector->calls[0].transactionTypeId, "TTVI-Kelvane-C003.COzelkDlcDownload");
    EXPECT_TRUE(log.Contains(LogLevel::kInfo, "HTTP Payload has been received 200"));
}

TEST_F(BackendConnectionTest, FeedbackPostsWithoutAcceptAndLogsEveryField) {
    ScriptedTcpServer server(
        Script().ReceiveRequest().Send("HTTP/1.1 204 No Content\r\n\r\n").Close());

    const int result = sut.SendStatusFeedback(SampleParams(), "tok-123", server.Url("/fb"));

    EXPECT_EQ(result, 0);
    EXPECT_EQ(server.Received(0),
              Header("POST", "/fb", "application/TTVI_CO_ZelkDlcStatusFeedbackRequest_v3+proto", "",
                     kSampleWire.size()) +
                  kSampleWire);
    ASSERT_EQ(connector->calls.size(), 1U);
    EXPECT_EQ(connector->calls[0].transactionTypeId, "TTVI-Kelvane-C003.COzelkDlcStatusFeedback");
    const std::vector<std::string> lines = {
        "Feedback payload - tesmoChallenge: 'AB'", "Feedback payload - diagnosticID: 'D'",
        "Feedback payload - partNumber: 'P'",      "Feedback payload - tesmoIdString: 'T'",
        "Feedback payload - zelkVin: 'VIN'",       "Feedback payload - trainingCounter: '002A'",
        "Feedback payload - pssHash: '0AFF'",      "Feedback payload - identityHash: '01'"};
    long previous = -1;
    for (const auto& line : lines) {
        const long index = log.IndexOf(line);
        EXPECT_GT(index, previous) << line;
        EXPECT_TRUE(log.Contains(LogLevel::kInfo, line));
        previous = index;
    }
}

TEST_F(BackendConnectionTest, StatusDecidesSuccessPerExchange) {
    struct Case {
        std::string statusLine;
        bool challengeOk;
        bool downloadOk;
        int feedback;
    };
    const std::vector<Case> cases = {
        {"200 OK", true, true, 0},
        {"204 No Content", false, false, 0},
        {"201 Created", false, false, 1},
        {"300 Multiple Choices", false, false, 1},
        {"500 Internal Server Error", false, false, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.statusLine);
        ScriptedTcpServer server(Script().ReceiveRequest().Send(Answer(c.statusLine, "")).Close());
        std::string challenge = "previous";
        std::string container = "previous";
        log.Clear();

        const bool challengeOk = sut.ChallengeRequest("t", server.Url("/c"), challenge);
        const bool downloadOk =
            sut.DownloadRequest("t", RequestParams{}, server.Url("/d"), container);
        const int feedback = sut.SendStatusFeedback(RequestParams{}, "t", server.Url("/f"));

        EXPECT_EQ(challengeOk, c.challengeOk);
        EXPECT_EQ(downloadOk, c.downloadOk);
        EXPECT_EQ(feedback, c.feedback);
        // A 200 with an empty body is a success with an empty value.
        EXPECT_EQ(challenge, c.challengeOk ? "" : "previous");
        EXPECT_EQ(container, c.downloadOk ? "" : "previous");
        const std::string code =
            c.statusLine == "300 Multiple Choices" ? "255" : c.statusLine.substr(0, 3);
        const std::size_t unexpected =
            (c.challengeOk ? 0 : 1) + (c.downloadOk ? 0 : 1) + (c.feedback == 0 ? 0 : 1);
        EXPECT_EQ(log.Count(LogLevel::kError, "Unexpected HTTP response: " + code + "!"),
                  unexpected);
    }
}

TEST_F(BackendConnectionTest, BodyThatFailsToParseYieldsWhatTheFieldHolds) {
    ScriptedTcpServer server(
        Script().ReceiveRequest().Send(Answer("200 OK", "<html>not protobuf</html>")).Close());
    std::string challenge = "previous";
    std::string container = "previous";

    EXPECT_TRUE(sut.ChallengeRequest("t", server.Url("/c"), challenge));
    EXPECT_TRUE(sut.DownloadRequest("t", SampleParams(), server.Url("/d"), container));

    EXPECT_EQ(challenge, "");
    EXPECT_EQ(container, "");
    // A value read before the parse failed is what the field holds.
    const std::string readBeforeFailure =
        "\x0a\x03"
        "abc\x12";
    EXPECT_EQ(sut.ParseReceivedChallenge(readBeforeFailure), "abc");
    EXPECT_EQ(sut.ParseDlcDownloadResponse(readBeforeFailure), "abc");
}

TEST_F(BackendConnectionTest, MissingAnswerAndUnreachableBackendAreFailures) {
    ScriptedTcpServer closesSilently(Script().ReceiveRequest().Close());
    const auto closedPort = kelvane::testing::FreeTcpPort();
    const std::string unreachable = "http://127.0.0.1:" + std::to_string(closedPort) + "/x";
    std::string challenge = "previous";
    std::string container = "previous";

    EXPECT_FALSE(sut.ChallengeRequest("t", closesSilently.Url("/c"), challenge));
    EXPECT_TRUE(log.Contains(LogLevel::kError, "Unexpected HTTP response: 4095!"));
    EXPECT_FALSE(sut.ChallengeRequest("t", unreachable, challenge));
    EXPECT_FALSE(sut.DownloadRequest("t", SampleParams(), unreachable, container));
    EXPECT_EQ(sut.SendStatusFeedback(SampleParams(), "t", unreachable), 1);

    EXPECT_EQ(challenge, "previous");
    EXPECT_EQ(container, "previous");
    EXPECT_EQ(log.Count(LogLevel::kError, "HttpConnection: Connection failed!"), 3U);
}

TEST_F(BackendConnectionTest, UrlThatCannotBeSplitFailsWithoutConnecting) {
    std::string challenge = "previous";
    std::string container = "previous";

    EXPECT_FALSE(sut.ChallengeRequest("t", "backend/no-scheme", challenge));
    EXPECT_FALSE(sut.DownloadRequest("t", SampleParams(), "http://:1/", container));
    EXPECT_EQ(sut.SendStatusFeedback(SampleParams(), "t", "http://h:port/"), 1);

    EXPECT_TRUE(connector->calls.empty());
    EXPECT_EQ(challenge, "previous");
    EXPECT_EQ(container, "previous");
}

TEST_F(BackendConnectionTest, BothBuildersMapTheParametersToTheSameWireBytes) {
    EXPECT_EQ(sut.CreateDLCDownloadRequest(SampleParams()), kSampleWire);
    EXPECT_EQ(sut.CreateStatusUpdateRequest(SampleParams()), kSampleWire);
    // An empty record still carries its training counter.
    EXPECT_EQ(sut.CreateDLCDownloadRequest(RequestParams{}),
              "\x32\x04"
              "0000");
    RequestParams highest;
    highest.trainingCounter = 65535;
    EXPECT_EQ(sut.CreateDLCDownloadRequest(highest),
              "\x32\x04"
              "FFFF");
}

// A backend that resolves types by schema file name finds them only under
// their own names, with no folder in front.
TEST(BackendMessagesTest, SchemasRegisterUnderTheirOwnFileNamesInOnePackage) {
    namespace messages = domain::backend::zelkDlc::proto;
    const std::pair<const google::protobuf::Descriptor*, const char*> cases[] = {
        {messages::zelkDlcRequestType::descriptor(), "TTVI_CO_zelkDlcRequest_v3.proto"},
        {messages::zelkDlcStatusFeedbackRequestType::descriptor(),
         "TTVI_CO_zelkDlcStatusFeedbackRequest_v3.proto"},
        {messages::zelkDlcChallengeResponseType::descriptor(),
         "TTVI_CT_zelkDlcChallengeResponse_v3.proto"},
        {messages::zelkDlcResponseType::descriptor(), "TTVI_CT_zelkDlcResponse_v3.proto"}};
    for (const auto& [descriptor, fileName] : cases) {
        EXPECT_EQ(descriptor->file()->name(), fileName);
        EXPECT_EQ(descriptor->file()->package(), "domain.backend.zelkDlc.proto");
    }
}

}  // namespace
}  // namespace kelvane_client
