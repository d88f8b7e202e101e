#include "backend/backend_connection.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
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

std::string Header(const std::string& method, const std::string& target,
                   const std::string& contentType, const std::string& accept,
                   std::size_t contentLength) {
    return method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: " + contentType +
           "\r\n" + (accept.empty() ? "" : "Accept: " + accept + "\r\n") +
           "Authorization: Bearer tok-123\r\nConnection: close\r\nContent-Length: " +
           std::to_string(contentLength) + "\r\n\r\n";
}

const RequestParams kSample{"xy", "q", "p", "t", {'V', 'I', 'N'}, 0x0BEF, {0x0A, 0xFF}, {0x01}};

// kSample serialised by hand, so that the field numbers and the hex forms are checked too.
const std::string kSampleWire = "\x0a\x02xy\x12\x01q\x1a\x01p\x22\x01t\x2a\x03VIN\x32\x04"s +
                                "0BEF\x3a\x04" + "0AFF\x42\x02" + "01";

class BackendConnectionTest : public ::testing::Test {
protected:
    std::shared_ptr<RecordingVIConnector> connector = std::make_shared<RecordingVIConnector>();
    BackendConnection sut{connector};
    LogCapture log;
    std::string challenge = "previous";
    std::string container = "previous";
};

TEST_F(BackendConnectionTest, EachExchangeSendsItsExactRequestAndTakesTheAnswersFirstField) {
    // Also fields a newer backend may add (9 varint, 2 or 3 bytes, 15 fixed32).
    ScriptedTcpServer server(Script().ReceiveRequest().Send(Answer(
        "200 OK", "\x48\x96\x01\x12\x03xyz\x0a\x20"s + kChallenge + "\x7d\x01\x02\x03\x04"s)));

    EXPECT_TRUE(sut.ChallengeRequest("tok-123", server.Url("/zelk/challenge?v=3"), challenge));
    EXPECT_TRUE(sut.DownloadRequest("tok-123", kSample, server.Url("/dl"), container));
    EXPECT_EQ(sut.SendStatusFeedback(kSample, "tok-123", server.Url("/fb")), 0);

    EXPECT_EQ(challenge, kChallenge);
    EXPECT_EQ(container, kChallenge);
    EXPECT_EQ(
        server.Received(0),
        Header("GET", "/zelk/challenge?v=3", "application/TTVI_CO_ZelkDlcChallengeRequest_v1+proto",
               "application/TTVI_CT_zelkDlcChallengeResponse_v3+proto", 0));
    EXPECT_EQ(server.Received(1),
              Header("POST", "/dl", "application/TTVI_CO_zelkDlcRequest_v3+proto",
                     "application/TTVI_CT_zelkDlcResponse_v3+proto", kSampleWire.size()) +
                  kSampleWire);
    EXPECT_EQ(server.Received(2),
              Header("POST", "/fb", "application/TTVI_CO_ZelkDlcStatusFeedbackRequest_v3+proto", "",
                     kSampleWire.size()) +
                  kSampleWire);
    std::vector<std::string> transactionTypes;
    for (const auto& call : connector->calls) {
        transactionTypes.push_back(call.transactionTypeId);
    }
    EXPECT_EQ(transactionTypes,
              (std::vector<std::string>{"TTVI-Kelvane-C003.COzelkDlcChallenge",
                                        "TTVI-Kelvane-C003.COzelkDlcDownload",
                                        "TTVI-Kelvane-C003.COzelkDlcStatusFeedback"}));
    // An IPv6 literal is bracketed in the Host header, as in the URL.
    ScriptedTcpServer v6(Script().ReceiveRequest().Send(Answer("204 No Content", "")),
                         ScriptedTcpServer::Family::kIPv6);
    EXPECT_EQ(sut.SendStatusFeedback(kSample, "tok-123", v6.Url("/fb")), 0);
    EXPECT_EQ(v6.Received(0).substr(0, 32), "POST /fb HTTP/1.1\r\nHost: [::1]\r\n");
    EXPECT_TRUE(log.Contains(LogLevel::kInfo, "HTTP Payload has been received 200"));
    EXPECT_EQ(log.Count(LogLevel::kError, ""), 0U);
    long previous = -1;
    for (const char* line :
         {"tesmoChallenge: 'xy'", "diagnosticID: 'q'", "partNumber: 'p'", "tesmoIdString: 't'",
          "zelkVin: 'VIN'", "trainingCounter: '0BEF'", "pssHash: '0AFF'", "identityHash: '01'"}) {
        const long index = log.IndexOf("Feedback payload - "s + line);
        EXPECT_GT(index, previous) << line;
        previous = index;
    }
}

TEST_F(BackendConnectionTest, StatusDecidesSuccessPerExchangeAndAnythingElseIsLogged) {
    // Status line, body, challenge and download succeed (with an empty value), feedback result.
    const std::tuple<std::string, std::string, bool, int> rows[] = {
        {"200 OK", "", true, 0},
        {"200 OK", "\x12\x03R42", true, 0},  // only a returnCode
        {"200 OK", "\xff\xff\xff\xff garbage", true, 0},
        {"204 No Content", "", false, 0},
        {"201 Created", "", false, 1}};
    for (const auto& [statusLine, body, ok, feedback] : rows) {
        SCOPED_TRACE(statusLine + body);
        ScriptedTcpServer server(Script().ReceiveRequest().Send(Answer(statusLine, body)));
        challenge = container = "previous";
        log.Clear();

        EXPECT_EQ(sut.ChallengeRequest("t", server.Url("/c"), challenge), ok);
        EXPECT_EQ(sut.DownloadRequest("t", RequestParams{}, server.Url("/d"), container), ok);
        EXPECT_EQ(sut.SendStatusFeedback(RequestParams{}, "t", server.Url("/f")), feedback);

        EXPECT_EQ(challenge, ok ? "" : "previous");
        EXPECT_EQ(container, ok ? "" : "previous");
        EXPECT_EQ(log.Count(LogLevel::kError,
                            "Unexpected HTTP response: " + statusLine.substr(0, 3) + "!"),
                  (ok ? 0U : 2U) + (feedback == 0 ? 0U : 1U));
    }
}

TEST_F(BackendConnectionTest, MissingAnswerUnreachableBackendAndBadUrlAreFailures) {
    ScriptedTcpServer closesSilently(Script().ReceiveRequest().Close());
    const std::string unreachable =
        "http://127.0.0.1:" + std::to_string(kelvane::testing::FreeTcpPort()) + "/x";

    EXPECT_FALSE(sut.ChallengeRequest("t", closesSilently.Url("/c"), challenge));
    EXPECT_TRUE(log.Contains(LogLevel::kError, "Unexpected HTTP response: 4095!"));
    EXPECT_FALSE(sut.ChallengeRequest("t", unreachable, challenge));
    EXPECT_FALSE(sut.DownloadRequest("t", kSample, unreachable, container));
    EXPECT_EQ(sut.SendStatusFeedback(kSample, "t", unreachable), 1);
    EXPECT_EQ(log.Count(LogLevel::kError, "HttpConnection: Connection failed!"), 3U);
    const auto connections = connector->calls.size();
    EXPECT_FALSE(sut.ChallengeRequest("t", "backend/no-scheme", challenge));

    EXPECT_EQ(connector->calls.size(), connections) << "a URL that cannot be split is not tried";
    EXPECT_EQ(challenge, "previous");
    EXPECT_EQ(container, "previous");
}

// A backend that resolves types by schema file name needs the bare file names.
TEST(BackendMessagesTest, SchemasRegisterUnderTheirOwnFileNamesInOnePackage) {
    namespace messages = domain::backend::zelkDlc::proto;
    const std::pair<const google::protobuf::Descriptor*, const char*> rows[] = {
        {messages::zelkDlcRequestType::descriptor(), "TTVI_CO_zelkDlcRequest_v3.proto"},
        {messages::zelkDlcStatusFeedbackRequestType::descriptor(),
         "TTVI_CO_zelkDlcStatusFeedbackRequest_v3.proto"},
        {messages::zelkDlcChallengeResponseType::descriptor(),
         "TTVI_CT_zelkDlcChallengeResponse_v3.proto"},
        {messages::zelkDlcResponseType::descriptor(), "TTVI_CT_zelkDlcResponse_v3.proto"}};
    for (const auto& [descriptor, fileName] : rows) {
        EXPECT_EQ(descriptor->file()->name(), fileName);
        EXPECT_EQ(descriptor->file()->package(), "domain.backend.zelkDlc.proto");
    }
}

}  // namespace
}  // namespace kelvane_client
