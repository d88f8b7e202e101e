#include "backend_sim/http_server.hpp"

#include <botan/base64.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "proto/TTVI_CO_zelkDlcRequest_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcChallengeResponse_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcResponse_v3.pb.h"
#include "raw_http_client.hpp"
#include "sim_common/dlc_container.hpp"
#include "sim_common/hex.hpp"
#include "test_support/temporary_directory.hpp"

namespace backend_sim {
namespace {

namespace pb = domain::backend::zelkDlc::proto;
using namespace std::chrono_literals;
using testing::BodyOf;
using testing::HeaderOf;
using testing::RawHttpClient;

const std::string kVin = "WKV0SIM0000000001";

/// The request bytes the vehicle client builds, header order included.
std::string ClientRequest(const std::string& method, const std::string& path,
                          const std::string& contentType, const std::string& accept,
                          const std::string& body) {
    std::string request =
        method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: " + contentType;
    if (!accept.empty()) {
        request += "\r\nAccept: " + accept;
    }
    return request + "\r\nAuthorization: Bearer kelvane-demo-token\r\nConnection: close" +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string ChallengeBytes() {
    return ClientRequest("GET", "/zelk/dlc/challenge", kChallengeRequestType,
                         kChallengeResponseType, "");
}

std::string DownloadBytes(const std::string& challenge) {
    const auto keys = sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, kVin, 0);
    pb::zelkDlcRequestType message;
    message.set_tesmochallenge(challenge);
    message.set_zelkvin(kVin);
    message.set_ecutrainingcounter("0000");
    message.set_identityhash(
        sim_common::ToHex(sim_common::IdentityHash(keys, *sim_common::FromHex(challenge))));
    return ClientRequest("POST", "/zelk/dlc/download", kDownloadRequestType, kDownloadResponseType,
                         message.SerializeAsString());
}

std::string AdminBytes(const std::string& method, const std::string& path,
                       const std::string& body) {
    return method + " " + path + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

std::string FeedbackBytes() {
    return ClientRequest("POST", "/zelk/dlc/feedback", kFeedbackRequestType, "", "");
}

class HttpServerTest : public ::testing::Test {
protected:
    void StartServer(const std::string& address = "127.0.0.1") {
        std::string error;
        ASSERT_TRUE(events_.Open(eventLog_, error)) << error;
        ASSERT_TRUE(server_.Listen(address, 0, error)) << error;
        server_.Start(2);
    }

    void SetUp() override { StartServer(); }

    void Arm(const std::string& definition) {
        std::string error;
        ASSERT_TRUE(faults_.Add(definition, error)) << error;
    }

    RawHttpClient::Reply Exchange(const std::string& request) {
        RawHttpClient client(server_.Port());
        EXPECT_TRUE(client.Connected());
        EXPECT_TRUE(client.Send(request));
        return client.ReceiveUntilClosed(10s);
    }

    std::string FreshChallenge() {
        pb::zelkDlcChallengeResponseType message;
        EXPECT_TRUE(message.ParseFromString(BodyOf(Exchange(ChallengeBytes()).bytes)));
        return message.tesmochallenge();
    }

    std::string EventLogText() const { return kelvane::testing::ReadFile(eventLog_); }

    kelvane::testing::TemporaryDirectory directory_;
    std::string eventLog_ = directory_.File("events.jsonl");
    BackendConfig config_;
    FaultPlan faults_;
    EventLog events_;
    BackendService service_{config_};
    std::mutex pushedMutex_;
    std::vector<std::string> pushed_;
    std::atomic<bool> pushFails_{false};
    AdminApi admin_{faults_, events_, [this](const std::string& payload, std::string& error) {
                        const std::lock_guard<std::mutex> lock(pushedMutex_);
                        if (pushFails_) {
                            error = "broker down";
                            return false;
                        }
                        pushed_.push_back(payload);
                        return true;
                    }};
    HttpServer server_{{service_, faults_, admin_, events_}};
};

TEST_F(HttpServerTest, UpdateExchangesAreAnsweredAndClosedWithExactHeaders) {
    const auto challengeReply = Exchange(ChallengeBytes());
    pb::zelkDlcChallengeResponseType challenge;
    ASSERT_TRUE(challenge.ParseFromString(BodyOf(challengeReply.bytes)));
    const auto downloadReply = Exchange(DownloadBytes(challenge.tesmochallenge()));
    const auto feedbackReply = Exchange(FeedbackBytes());

    EXPECT_TRUE(challengeReply.closed);
    const auto header = HeaderOf(challengeReply.bytes);
    EXPECT_EQ(header.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << header;
    EXPECT_NE(
        header.find("\r\nContent-Type: application/TTVI_CT_zelkDlcChallengeResponse_v3+proto"),
        std::string::npos);
    EXPECT_NE(header.find("\r\nConnection: close"), std::string::npos);
    EXPECT_NE(header.find("\r\nContent-Length: 34"), std::string::npos);
    EXPECT_TRUE(downloadReply.closed);
    EXPECT_EQ(downloadReply.bytes.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << downloadReply.bytes;
    pb::zelkDlcResponseType download;
    ASSERT_TRUE(download.ParseFromString(BodyOf(downloadReply.bytes)));
    const auto container = Botan::base64_decode(download.downloadcontainer());
    EXPECT_EQ(container.size(), sim_common::DlcContainer::kSize);
    EXPECT_TRUE(feedbackReply.closed);
    EXPECT_EQ(feedbackReply.bytes.rfind("HTTP/1.1 204 No Content\r\n", 0), 0u);
    EXPECT_EQ(feedbackReply.bytes.find("Content-Length"), std::string::npos);
    const auto log = EventLogText();
    const auto first = log.find(R"("exchange":"challenge")");
    const auto second = log.find(R"("exchange":"download")");
    const auto third = log.find(R"("exchange":"feedback")");
    EXPECT_TRUE(first < second && second < third && third != std::string::npos) << log;
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3);
}

TEST_F(HttpServerTest, InjectedStatusHitsTheCountedNumberOfRequests) {
    Arm("challenge=status:500:2");
    Arm("challenge=status:999");

    const auto first = Exchange(ChallengeBytes());
    const auto second = Exchange(ChallengeBytes());
    const auto third = Exchange(ChallengeBytes());
    const auto fourth = Exchange(ChallengeBytes());

    EXPECT_EQ(first.bytes.rfind("HTTP/1.1 500 Internal Server Error\r\n", 0), 0u) << first.bytes;
    EXPECT_TRUE(first.closed);
    EXPECT_EQ(second.bytes.rfind("HTTP/1.1 500 ", 0), 0u);
    EXPECT_EQ(third.bytes.rfind("HTTP/1.1 999 Injected Fault\r\n", 0), 0u) << third.bytes;
    EXPECT_EQ(fourth.bytes.rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    EXPECT_NE(EventLogText().find(R"("fault":"status:500","status":500)"), std::string::npos);
}

TEST_F(HttpServerTest, EachFaultShapesTheAnswerOnTheWire) {
    const struct {
        const char* fault;
        std::string start;  // what the reply begins with
        bool whole;         // the reply is exactly `start`
        std::chrono::milliseconds atLeast;
    } rows[] = {
        {"challenge=status:999", "HTTP/1.1 999 Injected Fault\r\n", false, 0ms},
        {"challenge=empty-body", "HTTP/1.1 200 OK\r\n", false, 0ms},
        {"challenge=garbage-body", "HTTP/1.1 200 OK\r\n", false, 0ms},
        {"challenge=delay:300", "HTTP/1.1 200 OK\r\n", false, 300ms},
        {"download=continue", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n", false, 0ms},
        {"download=close", "", true, 0ms},
        {"feedback=no-digits", "HTTP/1.1 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
         true, 0ms},
    };
    for (const auto& row : rows) {
        const std::string fault = row.fault;
        const std::string request = fault.rfind("challenge", 0) == 0 ? ChallengeBytes()
                                    : fault.rfind("download", 0) == 0
                                        ? DownloadBytes(FreshChallenge())
                                        : FeedbackBytes();
        Arm(fault);
        const auto start = std::chrono::steady_clock::now();

        const auto reply = Exchange(request);

        EXPECT_TRUE(reply.closed) << fault;
        EXPECT_EQ(reply.bytes.rfind(row.start, 0), 0u) << fault << ": " << reply.bytes;
        EXPECT_TRUE(!row.whole || reply.bytes == row.start) << fault << ": " << reply.bytes;
        EXPECT_GE(std::chrono::steady_clock::now() - start, row.atLeast) << fault;
        if (fault == "challenge=empty-body" || fault == "challenge=garbage-body") {
            // An empty body is a valid empty message; garbage is no message at all.
            const auto body = BodyOf(reply.bytes);
            pb::zelkDlcChallengeResponseType message;
            EXPECT_EQ(body.empty(), fault == "challenge=empty-body") << fault;
            EXPECT_EQ(message.ParseFromString(body), body.empty()) << fault;
        }
    }
    EXPECT_NE(EventLogText().find("closed without answering"), std::string::npos);
}

TEST_F(HttpServerTest, KeptOpenConnectionAnswersButDoesNotClose) {
    Arm("feedback=keep-open");
    RawHttpClient client(server_.Port());
    ASSERT_TRUE(client.Send(FeedbackBytes()));

    const auto reply = client.Receive(500ms);

    EXPECT_EQ(reply.bytes.rfind("HTTP/1.1 204 No Content\r\n", 0), 0u) << reply.bytes;
    EXPECT_EQ(reply.bytes.find("Connection: close"), std::string::npos);
    EXPECT_FALSE(reply.closed);
}

TEST_F(HttpServerTest, HangFaultNeitherAnswersNorCloses) {
    Arm("challenge=hang");
    RawHttpClient client(server_.Port());
    ASSERT_TRUE(client.Send(ChallengeBytes()));

    const auto reply = client.Receive(500ms);

    EXPECT_EQ(reply.bytes, "");
    EXPECT_FALSE(reply.closed);
    EXPECT_NE(EventLogText().find("holding the connection"), std::string::npos);
}

TEST_F(HttpServerTest, BadMacFaultDeliversAContainerThatDoesNotVerify) {
    Arm("download=bad-mac");

    const auto reply = Exchange(DownloadBytes(FreshChallenge()));

    pb::zelkDlcResponseType message;
    ASSERT_TRUE(message.ParseFromString(BodyOf(reply.bytes)));
    const auto decoded = Botan::base64_decode(message.downloadcontainer());
    const std::vector<std::uint8_t> container(decoded.begin(), decoded.end());
    EXPECT_EQ(sim_common::ParseDlcContainer(container).error,
              sim_common::ContainerParseError::kNone);
    EXPECT_FALSE(sim_common::HasValidMac(
        container, sim_common::DeriveVehicleKeys(sim_common::kDefaultSecret, kVin, 0)));
}

TEST_F(HttpServerTest, ClientAskingToContinueGetsTheInterimAnswerBeforeSendingItsBody) {
    const std::string body =
        "\x0a\x02"
        "AB";
    std::string request =
        ClientRequest("POST", "/zelk/dlc/feedback", kFeedbackRequestType, "", body);
    request.insert(request.find("\r\n\r\n"), "\r\nExpect: 100-continue");
    const std::string header = request.substr(0, request.size() - body.size());
    RawHttpClient client(server_.Port());

    ASSERT_TRUE(client.Send(header));
    const auto interim = client.ReceiveUntil("\r\n\r\n", 5s);
    ASSERT_TRUE(client.Send(body));
    const auto final = client.ReceiveUntilClosed(5s);

    EXPECT_EQ(interim.bytes, "HTTP/1.1 100 Continue\r\n\r\n");
    EXPECT_EQ(final.bytes.rfind("HTTP/1.1 204 No Content\r\n", 0), 0u) << final.bytes;
    EXPECT_NE(EventLogText().find(R"("tesmoChallenge":"AB")"), std::string::npos);
}

TEST_F(HttpServerTest, AdminEndpointsArmFaultsAndPush) {
    const auto armed = Exchange(AdminBytes("POST", "/admin/fault", "challenge=status:503\n"));
    const auto refused = Exchange(AdminBytes("POST", "/admin/fault", "challenge=boom"));
    const auto faulted = Exchange(ChallengeBytes());
    const auto pushedDefault = Exchange(AdminBytes("POST", "/admin/push", ""));
    const auto pushedText = Exchange(AdminBytes("POST", "/admin/push", "hello"));
    pushFails_ = true;
    const auto pushFailed = Exchange(AdminBytes("POST", "/admin/push", ""));

    EXPECT_EQ(armed.bytes.rfind("HTTP/1.1 204 ", 0), 0u) << armed.bytes;
    EXPECT_EQ(refused.bytes.rfind("HTTP/1.1 400 ", 0), 0u);
    EXPECT_NE(BodyOf(refused.bytes).find("unknown fault 'boom'"), std::string::npos);
    EXPECT_EQ(faulted.bytes.rfind("HTTP/1.1 503 ", 0), 0u);
    EXPECT_EQ(pushedDefault.bytes.rfind("HTTP/1.1 204 ", 0), 0u);
    EXPECT_EQ(pushedText.bytes.rfind("HTTP/1.1 204 ", 0), 0u);
    EXPECT_EQ(pushFailed.bytes.rfind("HTTP/1.1 502 ", 0), 0u);
    EXPECT_NE(BodyOf(pushFailed.bytes).find("broker down"), std::string::npos);
    const std::lock_guard<std::mutex> lock(pushedMutex_);
    EXPECT_EQ(pushed_, (std::vector<std::string>{AdminApi::kDefaultPushMessage, "hello"}));
}

TEST_F(HttpServerTest, UnknownPathsAndNonHttpAreRefused) {
    const auto unknown = Exchange("GET /zelk/other HTTP/1.1\r\n\r\n");
    const auto notHttp = Exchange("HELLO THERE\r\n\r\n");

    EXPECT_EQ(unknown.bytes.rfind("HTTP/1.1 404 ", 0), 0u);
    EXPECT_EQ(notHttp.bytes.rfind("HTTP/1.1 400 ", 0), 0u) << notHttp.bytes;
    EXPECT_TRUE(notHttp.closed);
}

TEST(HttpServerIpv6Test, ServesOnIpv6Loopback) {
    BackendConfig config;
    FaultPlan faults;
    EventLog events;
    BackendService service(config);
    AdminApi admin(faults, events, [](const std::string&, std::string&) { return true; });
    HttpServer sut({service, faults, admin, events});
    std::string error;
    ASSERT_TRUE(sut.Listen("::1", 0, error)) << error;
    sut.Start(1);

    RawHttpClient client(sut.Port(), true);
    ASSERT_TRUE(client.Connected());
    ASSERT_TRUE(client.Send(ChallengeBytes()));
    const auto reply = client.ReceiveUntilClosed(5s);

    EXPECT_EQ(reply.bytes.rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
}

}  // namespace
}  // namespace backend_sim
