#include "backend/backend_connection.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

#include "backend/transaction_types.hpp"
#include "csa_common/http_connection.hpp"
#include "csa_common/http_protocol.hpp"
#include "csc_logging/csc_logging.hpp"
#include "proto/TTVI_CO_zelkDlcRequest_v3.pb.h"
#include "proto/TTVI_CO_zelkDlcStatusFeedbackRequest_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcChallengeResponse_v3.pb.h"
#include "proto/TTVI_CT_zelkDlcResponse_v3.pb.h"

namespace kelvane_client {
namespace {

using csa_common::HttpConnection;
using csa_common::HttpOption;
using csa_common::HttpProtocol;
using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;
namespace proto = domain::backend::zelkDlc::proto;

// The upper-case "Zelk" in two request types is what the backend expects.
constexpr const char* kChallengeContentType =
    "application/TTVI_CO_ZelkDlcChallengeRequest_v1+proto";
constexpr const char* kChallengeAccept = "application/TTVI_CT_zelkDlcChallengeResponse_v3+proto";
constexpr const char* kDownloadContentType = "application/TTVI_CO_zelkDlcRequest_v3+proto";
constexpr const char* kDownloadAccept = "application/TTVI_CT_zelkDlcResponse_v3+proto";
constexpr const char* kFeedbackContentType =
    "application/TTVI_CO_ZelkDlcStatusFeedbackRequest_v3+proto";

constexpr std::string_view kBearer = "Bearer ";
constexpr std::uint16_t kHttpOk = 200;
constexpr std::uint16_t kHttpNoContent = 204;
constexpr char kHexDigits[] = "0123456789ABCDEF";

enum class Method { kGet, kPost };

struct Exchange {
    Method method;
    const std::string& transactionType;
    const char* contentType;
    const char* accept;  // nullptr: no Accept header
};

// Runs one exchange on a fresh connection; false when it did not produce a
// response (the cause is logged by the URL parser or the connection).
bool Run(const std::shared_ptr<vi_connector::VIConnector>& connector, const Exchange& exchange,
         const std::string& token, const std::string& url, std::string body,
         HttpProtocol& protocol) {
    const auto parsed = HttpConnection::UrlParser(url);
    if (parsed.host.empty()) {
        return false;
    }
    protocol.SetOption(HttpOption::Uri, parsed.path);
    protocol.SetOption(HttpOption::Host, HttpConnection::HostHeader(parsed.host));
    protocol.SetOption(HttpOption::ContentType, exchange.contentType);
    if (exchange.accept != nullptr) {
        protocol.SetOption(HttpOption::Accept, exchange.accept);
    }
    // One heap buffer, reserved whole and handed over by the moves (a small
    // string would be copied instead, leaving the token on the stack);
    // HttpProtocol wipes it.
    std::string authorization;
    authorization.reserve(std::max(kBearer.size() + token.size(), std::string().capacity() + 1));
    authorization.append(kBearer).append(token);
    protocol.SetOption(HttpOption::Authorization, std::move(authorization));
    // Without it the response would only end after a 10 s silence.
    protocol.SetOption(HttpOption::Connection, "close");
    protocol.SetOption(HttpOption::Payload, std::move(body));

    const auto connection = std::make_shared<HttpConnection>(parsed.host, parsed.port,
                                                             exchange.transactionType, connector);
    return exchange.method == Method::kGet ? connection->Get(&protocol)
                                           : connection->Post(&protocol);
}

void LogUnexpectedStatus(std::uint16_t status) {
    CSCLogging::Error(CSCLogEntry() << "Unexpected HTTP response: " << status << "!");
}

template <typename Message>
void FillRequest(const RequestParams& params, Message& message) {
    std::string text;
    message.set_tesmochallenge(params.tesmoChallenge);
    message.set_diagnosticid(params.diagnosticID);
    message.set_partnumber(params.partNumber);
    message.set_tesmoidstring(params.tesmoIdString);
    message.set_zelkvin(std::string(params.zelkVin.begin(), params.zelkVin.end()));
    trainingCounterToString(params.trainingCounter, text);
    message.set_ecutrainingcounter(text);
    hashToString(params.pssHash, text);
    message.set_psshash(text);
    hashToString(params.identityHash, text);
    message.set_identityhash(text);
}

}  // namespace

void hashToString(const std::vector<std::uint8_t>& hash, std::string& out) {
    out.clear();
    out.reserve(hash.size() * 2);
    for (const std::uint8_t byte : hash) {
        out.push_back(kHexDigits[byte >> 4]);
        out.push_back(kHexDigits[byte & 0x0F]);
    }
}

void trainingCounterToString(std::uint16_t counter, std::string& out) {
    out.assign(4, '0');
    for (int i = 3; i >= 0; --i) {
        out[static_cast<std::size_t>(i)] = kHexDigits[counter & 0x0F];
        counter = static_cast<std::uint16_t>(counter >> 4);
    }
}

BackendConnection::BackendConnection(std::shared_ptr<vi_connector::VIConnector> viConnector)
    : connector(std::move(viConnector)) {}

bool BackendConnection::ChallengeRequest(const std::string& token, const std::string& url,
                                         std::string& challenge) {
    static const Exchange exchange{Method::kGet, ChallengeRequestOperationTypeId,
                                   kChallengeContentType, kChallengeAccept};
    HttpProtocol protocol;
    if (!Run(connector, exchange, token, url, std::string(), protocol)) {
        return false;
    }
    if (protocol.ResponseStatusCode() != kHttpOk) {
        LogUnexpectedStatus(protocol.ResponseStatusCode());
        return false;
    }
    challenge = ParseReceivedChallenge(protocol.ResponsePayload());
    return true;
}

bool BackendConnection::DownloadRequest(const std::string& token, const RequestParams& params,
                                        const std::string& url, std::string& container) {
    static const Exchange exchange{Method::kPost, DownloadRequestOperationTypeId,
                                   kDownloadContentType, kDownloadAccept};
    HttpProtocol protocol;
    if (!Run(connector, exchange, token, url, CreateDLCDownloadRequest(params), protocol)) {
        return false;
    }
    if (protocol.ResponseStatusCode() != kHttpOk) {
        LogUnexpectedStatus(protocol.ResponseStatusCode());
        return false;
    }
    container = ParseDlcDownloadResponse(protocol.ResponsePayload());
    CSCLogging::Info(CSCLogEntry()
                     << "HTTP Payload has been received " << protocol.ResponseStatusCode());
    return true;
}

int BackendConnection::SendStatusFeedback(const RequestParams& params, const std::string& token,
                                          const std::string& url) const {
    static const Exchange exchange{Method::kPost, StatusFeedbackOperationTypeId,
                                   kFeedbackContentType, nullptr};
    HttpProtocol protocol;
    if (!Run(connector, exchange, token, url, CreateStatusUpdateRequest(params), protocol)) {
        return 1;
    }
    const auto status = protocol.ResponseStatusCode();
    if (status != kHttpOk && status != kHttpNoContent) {
        LogUnexpectedStatus(status);
        return 1;
    }
    return 0;
}

std::string BackendConnection::ParseReceivedChallenge(const std::string& payload) const {
    proto::zelkDlcChallengeResponseType message;
    // A failed parse is not reported: the field is returned as the parse left
    // it (usually empty), and the caller treats an empty value as the error.
    (void)message.ParseFromString(payload);
    return message.tesmochallenge();
}

std::string BackendConnection::ParseDlcDownloadResponse(const std::string& payload) const {
    proto::zelkDlcResponseType message;
    (void)message.ParseFromString(payload);
    return message.downloadcontainer();
}

std::string BackendConnection::CreateDLCDownloadRequest(const RequestParams& params) const {
    proto::zelkDlcRequestType message;
    FillRequest(params, message);
    std::string bytes;
    (void)message.SerializeToString(&bytes);
    return bytes;
}

std::string BackendConnection::CreateStatusUpdateRequest(const RequestParams& params) const {
    proto::zelkDlcStatusFeedbackRequestType message;
    FillRequest(params, message);
    const std::pair<const char*, const std::string*> fields[] = {
        {"tesmoChallenge", &message.tesmochallenge()},
        {"diagnosticID", &message.diagnosticid()},
        {"partNumber", &message.partnumber()},
        {"tesmoIdString", &message.tesmoidstring()},
        {"zelkVin", &message.zelkvin()},
        {"trainingCounter", &message.ecutrainingcounter()},
        {"pssHash", &message.psshash()},
        {"identityHash", &message.identityhash()},
    };
    for (const auto& [name, value] : fields) {
        CSCLogging::Info(std::string("Feedback payload - ") + name + ": '" + *value + "'");
    }
    std::string bytes;
    (void)message.SerializeToString(&bytes);
    return bytes;
}

}  // namespace kelvane_client
