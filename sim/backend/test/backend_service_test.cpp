#include "backend_sim/backend_service.hpp"

#include <botan/base64.h>
#include <gtest/gtest.h>

#include "proto/TTVI_CO_zelkDlcRequest_v3.pb.h"
#include "proto/TTVI_CO_zelkDlcStatusFeedbackRequest_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcChallengeResponse_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcResponse_v3.pb.h"
#include "sim_common/dlc_container.hpp"
#include "sim_common/hex.hpp"

namespace backend_sim {
namespace {

namespace pb = domain::backend::zelkDlc::proto;
using sim_common::JsonLine;

const std::string kVin = "WKV0SIM0000000001";
const std::string kSecret = "test-secret";
const std::string kToken = "test-token";

/// What the vehicle side knows and sends: its keys of one generation.
struct Vehicle {
    std::string vin = kVin;
    std::uint16_t counter = 5;
    std::string secret = kSecret;

    template <typename Message>
    Message Request(const std::string& challenge) const {
        const auto keys = sim_common::DeriveVehicleKeys(secret, vin, counter);
        Message message;
        message.set_tesmochallenge(challenge);
        message.set_diagnosticid("C003");
        message.set_partnumber("8W0907468A");
        message.set_tesmoidstring("TESMO-ID");
        message.set_zelkvin(vin);
        message.set_ecutrainingcounter(sim_common::CounterToHex(counter));
        message.set_psshash(sim_common::ToHex(sim_common::PssHash(keys)));
        message.set_identityhash(sim_common::ToHex(sim_common::IdentityHash(
            keys, sim_common::FromHex(challenge).value_or(std::vector<std::uint8_t>{}))));
        return message;
    }
};

HttpRequest MakeRequest(const std::string& method, const std::string& target,
                        const std::string& contentType, const std::string& accept,
                        const std::string& body) {
    HttpRequest request;
    request.method = method;
    request.target = target;
    request.headers["host"] = "127.0.0.1";
    request.headers["content-type"] = contentType;
    if (!accept.empty()) {
        request.headers["accept"] = accept;
    }
    request.headers["authorization"] = "Bearer " + kToken;
    request.headers["connection"] = "close";
    request.body = body;
    return request;
}

HttpRequest ChallengeRequest() {
    return MakeRequest("GET", "/zelk/dlc/challenge", kChallengeRequestType, kChallengeResponseType,
                       "");
}

HttpRequest DownloadRequest(const std::string& body) {
    return MakeRequest("POST", "/zelk/dlc/download", kDownloadRequestType, kDownloadResponseType,
                       body);
}

HttpRequest FeedbackRequest(const std::string& body) {
    return MakeRequest("POST", "/zelk/dlc/feedback", kFeedbackRequestType, "", body);
}

std::string Header(const HttpResponse& response, const std::string& name) {
    for (const auto& [key, value] : response.headers) {
        if (key == name) {
            return value;
        }
    }
    return "";
}

class BackendServiceTest : public ::testing::Test {
protected:
    BackendServiceTest() : sut_(MakeConfig(), [this] { return now_; }) {}

    static BackendConfig MakeConfig() {
        BackendConfig config;
        config.token = kToken;
        config.secret = kSecret;
        config.challengeLifetime = std::chrono::seconds(60);
        return config;
    }

    HttpResponse Serve(Exchange exchange, const HttpRequest& request, bool corruptMac = false) {
        JsonLine event;
        auto response = sut_.Serve(exchange, request, corruptMac, event);
        lastEvent_ = event.Str();
        return response;
    }

    std::string NewChallenge() {
        const auto response = Serve(Exchange::kChallenge, ChallengeRequest());
        pb::zelkDlcChallengeResponseType message;
        EXPECT_TRUE(message.ParseFromString(response.body));
        return message.tesmochallenge();
    }

    HttpResponse Download(const Vehicle& vehicle, const std::string& challenge,
                          bool corruptMac = false) {
        return Serve(
            Exchange::kDownload,
            DownloadRequest(vehicle.Request<pb::zelkDlcRequestType>(challenge).SerializeAsString()),
            corruptMac);
    }

    static std::vector<std::uint8_t> ContainerOf(const HttpResponse& response) {
        pb::zelkDlcResponseType message;
        EXPECT_TRUE(message.ParseFromString(response.body));
        const auto bytes = Botan::base64_decode(message.downloadcontainer());
        return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
    }

    BackendService::Clock::time_point now_ =
        BackendService::Clock::time_point(std::chrono::hours(1));
    BackendService sut_;
    std::string lastEvent_;
};

TEST_F(BackendServiceTest, OneUpdateIssuesAContainerForTheNextGenerationAndRecordsTheOutcome) {
    const Vehicle vehicle;

    const auto challengeResponse = Serve(Exchange::kChallenge, ChallengeRequest());
    pb::zelkDlcChallengeResponseType challengeMessage;
    ASSERT_TRUE(challengeMessage.ParseFromString(challengeResponse.body));
    const std::string challenge = challengeMessage.tesmochallenge();
    const auto download = Download(vehicle, challenge);
    Vehicle updated = vehicle;
    updated.counter = 6;
    const auto feedback = Serve(
        Exchange::kFeedback,
        FeedbackRequest(
            updated.Request<pb::zelkDlcStatusFeedbackRequestType>(challenge).SerializeAsString()));

    EXPECT_EQ(challengeResponse.status, 200);
    EXPECT_EQ(Header(challengeResponse, "Content-Type"),
              "application/TTVI_CT_zelkDlcChallengeResponse_v3+proto");
    ASSERT_EQ(challenge.size(), 32u);
    EXPECT_EQ(challenge.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    ASSERT_EQ(download.status, 200) << download.body;
    EXPECT_EQ(Header(download, "Content-Type"), "application/TTVI_CT_zelkDlcResponse_v3+proto");
    const auto container = ContainerOf(download);
    const auto parsed = sim_common::ParseDlcContainer(container);
    ASSERT_EQ(parsed.error, sim_common::ContainerParseError::kNone);
    EXPECT_EQ(parsed.container.vin, kVin);
    EXPECT_EQ(parsed.container.trainingCounter, 5);
    EXPECT_EQ(sim_common::ToHex(parsed.container.challenge), challenge);
    const auto current = sim_common::DeriveVehicleKeys(kSecret, kVin, 5);
    EXPECT_TRUE(sim_common::HasValidMac(container, current));
    EXPECT_EQ(sim_common::DecryptNextKeys(parsed.container, current),
              sim_common::DeriveVehicleKeys(kSecret, kVin, 6));
    EXPECT_EQ(feedback.status, 204);
    EXPECT_TRUE(feedback.body.empty());
    EXPECT_NE(lastEvent_.find(R"("outcome":"updated")"), std::string::npos) << lastEvent_;
    EXPECT_NE(lastEvent_.find(R"("identityHashMatches":true)"), std::string::npos) << lastEvent_;
    EXPECT_NE(lastEvent_.find(R"("zelkVin":"WKV0SIM0000000001")"), std::string::npos);
}

TEST_F(BackendServiceTest, LowerCaseChallengeFromTheVehicleIsTheSameChallenge) {
    const Vehicle vehicle;
    std::string challenge = NewChallenge();
    for (auto& c : challenge) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }

    EXPECT_EQ(Download(vehicle, challenge).status, 200);
}

TEST_F(BackendServiceTest, EnvelopeIsCheckedBeforeTheBody) {
    auto noToken = ChallengeRequest();
    noToken.headers.erase("authorization");
    auto wrongToken = ChallengeRequest();
    wrongToken.headers["authorization"] = "Bearer other";
    auto basic = ChallengeRequest();
    basic.headers["authorization"] = "Basic " + kToken;
    auto lowerCaseZ = ChallengeRequest();
    lowerCaseZ.headers["content-type"] = "application/TTVI_CO_zelkDlcChallengeRequest_v1+proto";
    auto withCharset = DownloadRequest("");
    withCharset.headers["content-type"] = std::string(kDownloadRequestType) + "; charset=utf-8";
    auto feedbackLowerCase = FeedbackRequest("");
    feedbackLowerCase.headers["content-type"] =
        "application/TTVI_CO_zelkDlcStatusFeedbackRequest_v3+proto";
    auto post = ChallengeRequest();
    post.method = "POST";
    auto wrongAccept = DownloadRequest("");
    wrongAccept.headers["accept"] = "application/json";
    auto anyAccept = ChallengeRequest();
    anyAccept.headers["accept"] = "*/*";

    const auto unauthenticated = Serve(Exchange::kChallenge, noToken);
    EXPECT_EQ(unauthenticated.status, 401);
    EXPECT_EQ(Header(unauthenticated, "WWW-Authenticate"), "Bearer");
    EXPECT_EQ(Serve(Exchange::kChallenge, wrongToken).status, 401);
    EXPECT_EQ(Serve(Exchange::kChallenge, basic).status, 401);
    EXPECT_EQ(Serve(Exchange::kChallenge, lowerCaseZ).status, 415);
    EXPECT_EQ(Serve(Exchange::kDownload, withCharset).status, 415);
    EXPECT_EQ(Serve(Exchange::kFeedback, feedbackLowerCase).status, 415);
    const auto wrongMethod = Serve(Exchange::kChallenge, post);
    EXPECT_EQ(wrongMethod.status, 405);
    EXPECT_EQ(Header(wrongMethod, "Allow"), "GET");
    EXPECT_EQ(Serve(Exchange::kDownload, wrongAccept).status, 406);
    EXPECT_EQ(Serve(Exchange::kChallenge, anyAccept).status, 200);
    EXPECT_EQ(sut_.Challenges().Size(), 1u);
}

TEST_F(BackendServiceTest, DownloadIsRefusedUnlessItAnswersAFreshChallengeOfThisVehicle) {
    Vehicle vehicle;
    Vehicle previousGeneration = vehicle;
    previousGeneration.counter = 4;
    Vehicle otherSecret = vehicle;
    otherSecret.secret = "not the backend's";
    Vehicle badVin = vehicle;
    badVin.vin = "WKV0SIM000000001";
    auto exhausted = vehicle;
    exhausted.counter = 0xFFFF;

    EXPECT_EQ(Download(vehicle, "00112233445566778899AABBCCDDEEFF").status, 400);
    EXPECT_NE(lastEvent_.find("unknown challenge"), std::string::npos);
    const auto challenge = NewChallenge();
    auto staleKeys = vehicle.Request<pb::zelkDlcRequestType>(challenge);
    staleKeys.set_identityhash(
        previousGeneration.Request<pb::zelkDlcRequestType>(challenge).identityhash());
    EXPECT_EQ(Serve(Exchange::kDownload, DownloadRequest(staleKeys.SerializeAsString())).status,
              403);
    EXPECT_EQ(Download(otherSecret, NewChallenge()).status, 403);
    EXPECT_EQ(Download(badVin, NewChallenge()).status, 400);
    EXPECT_EQ(Download(exhausted, NewChallenge()).status, 409);
    auto badCounter = vehicle.Request<pb::zelkDlcRequestType>(NewChallenge());
    badCounter.set_ecutrainingcounter("5");
    EXPECT_EQ(Serve(Exchange::kDownload, DownloadRequest(badCounter.SerializeAsString())).status,
              400);
    EXPECT_EQ(Serve(Exchange::kDownload, DownloadRequest(std::string("\x0a\x7f", 2) + "xx")).status,
              400);
    EXPECT_NE(lastEvent_.find("not a zelkDlcRequestType"), std::string::npos);
}

TEST_F(BackendServiceTest, ChallengeServesOneDownloadWithinItsLifetime) {
    const Vehicle vehicle;
    const auto used = NewChallenge();
    const auto stale = NewChallenge();
    const auto justInTime = NewChallenge();

    EXPECT_EQ(Download(vehicle, used).status, 200);
    EXPECT_EQ(Download(vehicle, used).status, 409);
    now_ += std::chrono::seconds(60);
    EXPECT_EQ(Download(vehicle, justInTime).status, 200);
    now_ += std::chrono::seconds(1);
    EXPECT_EQ(Download(vehicle, stale).status, 400);
    EXPECT_NE(lastEvent_.find("challenge expired"), std::string::npos);
}

TEST_F(BackendServiceTest, CorruptedMacIsTheOnlyDifference) {
    const Vehicle vehicle;

    const auto response = Download(vehicle, NewChallenge(), true);

    ASSERT_EQ(response.status, 200);
    const auto container = ContainerOf(response);
    EXPECT_EQ(sim_common::ParseDlcContainer(container).error,
              sim_common::ContainerParseError::kNone);
    EXPECT_FALSE(
        sim_common::HasValidMac(container, sim_common::DeriveVehicleKeys(kSecret, kVin, 5)));
    EXPECT_NE(lastEvent_.find(R"("macCorrupted":true)"), std::string::npos);
}

TEST_F(BackendServiceTest, FeedbackIsAlwaysTakenAndItsOutcomeJudged) {
    const Vehicle vehicle;
    const auto downloaded = NewChallenge();
    ASSERT_EQ(Download(vehicle, downloaded).status, 200);
    const auto notDownloaded = NewChallenge();
    const auto feedback = [this](const Vehicle& from, const std::string& challenge) {
        return Serve(Exchange::kFeedback,
                     FeedbackRequest(from.Request<pb::zelkDlcStatusFeedbackRequestType>(challenge)
                                         .SerializeAsString()))
            .status;
    };

    EXPECT_EQ(feedback(vehicle, downloaded), 204);
    EXPECT_NE(lastEvent_.find(R"("outcome":"not-updated")"), std::string::npos) << lastEvent_;
    EXPECT_EQ(feedback(vehicle, notDownloaded), 204);
    EXPECT_NE(lastEvent_.find(R"("outcome":"no-download")"), std::string::npos) << lastEvent_;
    EXPECT_EQ(Serve(Exchange::kFeedback, FeedbackRequest("")).status, 204);
    EXPECT_NE(lastEvent_.find(R"("outcome":"unknown-challenge")"), std::string::npos);
    EXPECT_NE(lastEvent_.find(R"("identityHashMatches":false)"), std::string::npos);
}

}  // namespace
}  // namespace backend_sim
