#include "backend_sim/backend_service.hpp"

#include <botan/base64.h>

#include <algorithm>
#include <cctype>

#include "csc_logging/csc_logging.hpp"
#include "proto/TTVI_CO_zelkDlcRequest_v3.pb.h"
#include "proto/TTVI_CO_zelkDlcStatusFeedbackRequest_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcChallengeResponse_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcResponse_v3.pb.h"
#include "sim_common/dlc_container.hpp"
#include "sim_common/hex.hpp"
#include "sim_common/vehicle_keys.hpp"

namespace backend_sim {
namespace {

namespace pb = domain::backend::zelkDlc::proto;
using sim_common::Json;

/// The eight request fields, shared by the download and the feedback message.
template <typename Message>
Json DescribeRequest(const Message& message) {
    return {{"tesmoChallenge", message.tesmochallenge()},
            {"diagnosticID", message.diagnosticid()},
            {"partNumber", message.partnumber()},
            {"tesmoIdString", message.tesmoidstring()},
            {"zelkVin", message.zelkvin()},
            {"ecuTrainingCounter", message.ecutrainingcounter()},
            {"pssHash", message.psshash()},
            {"identityHash", message.identityhash()}};
}

std::string ToUpper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

HttpResponse Refuse(int status, const std::string& reason, Json& event) {
    event["result"] = reason;
    return HttpResponse::Text(status, reason);
}

HttpResponse Proto(const char* contentType, const std::string& body) {
    HttpResponse response;
    response.headers.emplace_back("Content-Type", contentType);
    response.body = body;
    return response;
}

}  // namespace

BackendService::BackendService(const BackendConfig& config, std::function<Clock::time_point()> now)
    : config_(config), now_(std::move(now)), challenges_(config.challengeLifetime) {}

std::optional<Exchange> BackendService::ExchangeOf(const std::string& path) const {
    if (path == config_.challengePath) {
        return Exchange::kChallenge;
    }
    if (path == config_.downloadPath) {
        return Exchange::kDownload;
    }
    if (path == config_.feedbackPath) {
        return Exchange::kFeedback;
    }
    return std::nullopt;
}

const char* BackendService::ResponseContentType(Exchange exchange) {
    switch (exchange) {
        case Exchange::kChallenge:
            return kChallengeResponseType;
        case Exchange::kDownload:
            return kDownloadResponseType;
        case Exchange::kFeedback:
            break;
    }
    return "";
}

HttpResponse BackendService::Serve(Exchange exchange, const HttpRequest& request, bool corruptMac,
                                   Json& event) {
    if (auto refusal = CheckEnvelope(exchange, request, event)) {
        return *refusal;
    }
    switch (exchange) {
        case Exchange::kChallenge:
            return ServeChallenge(event);
        case Exchange::kDownload:
            return ServeDownload(request, corruptMac, event);
        case Exchange::kFeedback:
            return ServeFeedback(request, event);
    }
    return HttpResponse::Text(500, "unknown exchange");
}

std::optional<HttpResponse> BackendService::CheckEnvelope(Exchange exchange,
                                                          const HttpRequest& request,
                                                          Json& event) const {
    const bool isChallenge = exchange == Exchange::kChallenge;
    const char* method = isChallenge ? "GET" : "POST";
    if (request.method != method) {
        auto response =
            Refuse(405, "method " + request.method + " not allowed, use " + method, event);
        response.headers.emplace_back("Allow", method);
        return response;
    }
    if (request.Header("authorization") != "Bearer " + config_.token) {
        auto response = Refuse(
            401, request.HasHeader("authorization") ? "wrong bearer token" : "missing bearer token",
            event);
        response.headers.emplace_back("WWW-Authenticate", "Bearer");
        return response;
    }
    const char* expected = isChallenge                       ? kChallengeRequestType
                           : exchange == Exchange::kDownload ? kDownloadRequestType
                                                             : kFeedbackRequestType;
    if (request.Header("content-type") != expected) {
        return Refuse(415,
                      "unsupported content type '" + request.Header("content-type") +
                          "', expected '" + expected + "'",
                      event);
    }
    const std::string accept = request.Header("accept");
    const std::string offered = ResponseContentType(exchange);
    if (request.HasHeader("accept") && !offered.empty() && accept != offered && accept != "*/*") {
        return Refuse(406, "cannot answer with '" + accept + "', only '" + offered + "'", event);
    }
    return std::nullopt;
}

HttpResponse BackendService::ServeChallenge(Json& event) {
    const std::string challenge =
        sim_common::ToHex(sim_common::RandomBytes(sim_common::kChallengeSize));
    challenges_.Issue(challenge, now_());
    pb::zelkDlcChallengeResponseType message;
    message.set_tesmochallenge(challenge);
    event["result"] = "ok";
    event["response"] = {{"tesmoChallenge", challenge}};
    return Proto(kChallengeResponseType, message.SerializeAsString());
}

bool BackendService::IdentityHashMatches(const std::string& vin, std::uint16_t counter,
                                         const std::string& challengeHex,
                                         const std::string& identityHashHex) const {
    const auto challenge = sim_common::FromHex(challengeHex);
    const auto identityHash = sim_common::FromHex(identityHashHex);
    if (!challenge || challenge->size() != sim_common::kChallengeSize || !identityHash ||
        !sim_common::IsValidVin(vin)) {
        return false;
    }
    const auto keys = sim_common::DeriveVehicleKeys(config_.secret, vin, counter);
    return sim_common::ConstantTimeEqual(sim_common::IdentityHash(keys, *challenge), *identityHash);
}

HttpResponse BackendService::ServeDownload(const HttpRequest& request, bool corruptMac,
                                           Json& event) {
    pb::zelkDlcRequestType message;
    if (!message.ParseFromString(request.body)) {
        return Refuse(400, "body is not a zelkDlcRequestType message", event);
    }
    event["request"] = DescribeRequest(message);

    const std::string challenge = ToUpper(message.tesmochallenge());
    switch (challenges_.Check(challenge, now_())) {
        case ChallengeRegistry::Status::kUnknown:
            return Refuse(400, "unknown challenge '" + message.tesmochallenge() + "'", event);
        case ChallengeRegistry::Status::kExpired:
            return Refuse(400, "challenge expired", event);
        case ChallengeRegistry::Status::kAlreadyUsed:
            return Refuse(409, "challenge already used for a download", event);
        case ChallengeRegistry::Status::kFresh:
            break;
    }
    const std::string& vin = message.zelkvin();
    if (!sim_common::IsValidVin(vin)) {
        return Refuse(400, "bad VIN '" + vin + "' (17 digits or capitals)", event);
    }
    const auto counter = sim_common::CounterFromHex(message.ecutrainingcounter());
    if (!counter) {
        return Refuse(400,
                      "bad training counter '" + message.ecutrainingcounter() + "' (4 hex digits)",
                      event);
    }
    if (!IdentityHashMatches(vin, *counter, challenge, message.identityhash())) {
        return Refuse(403, "identity hash does not match VIN, counter and challenge", event);
    }
    if (*counter == 0xFFFF) {
        return Refuse(409, "training counter exhausted", event);
    }
    const auto current = sim_common::DeriveVehicleKeys(config_.secret, vin, *counter);
    const auto next = sim_common::DeriveVehicleKeys(config_.secret, vin,
                                                    static_cast<std::uint16_t>(*counter + 1));
    event["pssHashMatches"] =
        ToUpper(message.psshash()) == sim_common::ToHex(sim_common::PssHash(current));
    auto container = sim_common::BuildDlcContainer(vin, *counter, *sim_common::FromHex(challenge),
                                                   current, next);
    if (corruptMac) {
        container.back() ^= 0xFF;
    }
    if (!challenges_.MarkUsed(challenge, {vin, *counter}, now_())) {
        // Another download for the same challenge won the race.
        return Refuse(409, "challenge already used for a download", event);
    }
    pb::zelkDlcResponseType response;
    response.set_downloadcontainer(Botan::base64_encode(container.data(), container.size()));
    response.set_returncode("0");
    event["result"] = "ok";
    event["response"] = {{"containerBytes", container.size()},
                         {"forCounter", *counter},
                         {"macCorrupted", corruptMac},
                         {"returnCode", response.returncode()}};
    return Proto(kDownloadResponseType, response.SerializeAsString());
}

HttpResponse BackendService::ServeFeedback(const HttpRequest& request, Json& event) {
    pb::zelkDlcStatusFeedbackRequestType message;
    if (!message.ParseFromString(request.body)) {
        return Refuse(400, "body is not a zelkDlcStatusFeedbackRequestType message", event);
    }
    event["request"] = DescribeRequest(message);

    const std::string challenge = ToUpper(message.tesmochallenge());
    const auto counter = sim_common::CounterFromHex(message.ecutrainingcounter());
    std::string outcome;
    if (const auto use = challenges_.UseOf(challenge)) {
        if (counter && *counter == use->trainingCounter + 1) {
            outcome = "updated";
        } else if (counter && *counter == use->trainingCounter) {
            outcome = "not-updated";
        } else {
            outcome = "unexpected-counter";
        }
    } else {
        outcome = challenges_.Check(challenge, now_()) == ChallengeRegistry::Status::kUnknown
                      ? "unknown-challenge"
                      : "no-download";
    }
    event["outcome"] = outcome;
    event["identityHashMatches"] =
        counter &&
        IdentityHashMatches(message.zelkvin(), *counter, challenge, message.identityhash());
    event["result"] = "ok";
    csc_logging::CSCLogging::Info("Status feedback for challenge '" + message.tesmochallenge() +
                                  "': " + outcome);
    HttpResponse response;
    response.status = 204;
    return response;
}

}  // namespace backend_sim
