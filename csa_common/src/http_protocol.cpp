#include "csa_common/http_protocol.hpp"

#include <string_view>

#include "csa_common/secure_wipe.hpp"

namespace csa_common {
namespace {

constexpr std::uint32_t kFlagBit = 0x1U;
constexpr std::uint16_t kNoHeaderEndStatus = 4095;
constexpr std::uint16_t kUnknownStatus = 255;
constexpr std::string_view kHeaderEnd = "\r\n\r\n";

void AppendHeader(std::string& out, std::string_view name, const std::string& value) {
    if (!value.empty()) {
        out.append("\r\n").append(name).append(": ").append(value);
    }
}

}  // namespace

HttpProtocol::HttpProtocol() {
    SetDefaultValues();
    responseHeader.clear();
    responsePayload.clear();
    responseStatusCode = 0;
}

HttpProtocol::~HttpProtocol() {
    SecureWipe(authorization);
    SecureWipe(requestHeader);
    SecureWipe(request);
}

void HttpProtocol::SetDefaultValues() {
    options = 0;
    skipResponsePayload = 0;
    uri.clear();
    payload.clear();
    host.clear();
    connection.clear();
    SecureWipe(authorization);
    accept.clear();
    contentType = "text/html";
    contentLength = kActualContentLength;
}

void HttpProtocol::SetOption(HttpOption option) {
    switch (option) {
        case HttpOption::InlinePutPayload:
            options |= kFlagBit;
            break;
        case HttpOption::SkipResponsePayload:
            skipResponsePayload |= kFlagBit;
            break;
        default:
            break;
    }
}

void HttpProtocol::SetOption(HttpOption option, std::string value) {
    switch (option) {
        case HttpOption::Uri:
            uri = std::move(value);
            break;
        case HttpOption::Host:
            host = std::move(value);
            break;
        case HttpOption::Connection:
            connection = std::move(value);
            break;
        case HttpOption::ContentType:
            contentType = std::move(value);
            break;
        case HttpOption::ContentLength:
            contentLength = std::move(value);
            break;
        case HttpOption::Authorization:
            // The old buffer changes hands on the move and is freed with `value`.
            SecureWipe(authorization);
            authorization = std::move(value);
            break;
        case HttpOption::Accept:
            accept = std::move(value);
            break;
        case HttpOption::Payload:
            payload = std::move(value);
            break;
        default:
            break;
    }
}

const std::string& HttpProtocol::GET() {
    return Build(Method::kGet);
}

const std::string& HttpProtocol::POST() {
    return Build(Method::kPost);
}

const std::string& HttpProtocol::PUT() {
    return Build(Method::kPut);
}

const std::string& HttpProtocol::Build(Method method) {
    const bool isPut = method == Method::kPut;
    const bool inlinePayload = (options & kFlagBit) != 0;

    // Reserved whole: a growing string would free copies of the token unwiped.
    std::string out;
    out.reserve(256 + uri.size() + host.size() + contentType.size() + accept.size() +
                authorization.size() + connection.size() + contentLength.size() + payload.size());
    switch (method) {
        case Method::kGet:
            out.append("GET ");
            break;
        case Method::kPost:
            out.append("POST ");
            break;
        case Method::kPut:
            out.append("PUT ");
            break;
    }
    out.append(uri).append(" HTTP/1.1");
    AppendHeader(out, "Host", host);
    AppendHeader(out, "Content-Type", contentType);
    AppendHeader(out, "Accept", accept);
    // PUT never carries credentials.
    if (!isPut) {
        AppendHeader(out, "Authorization", authorization);
    }
    if (isPut && !inlinePayload) {
        out.append("\r\nExpect: 100-continue");
    }
    AppendHeader(out, "Connection", connection);
    if (!contentLength.empty()) {
        out.append("\r\nContent-Length: ");
        if (contentLength == kActualContentLength) {
            out.append(std::to_string(payload.size()));
        } else {
            out.append(contentLength);
        }
    }
    out.append(kHeaderEnd);
    SecureWipe(requestHeader);
    SecureWipe(request);
    requestHeader = out;
    // A PUT waiting for "100 Continue" sends its body separately.
    if (!isPut || inlinePayload) {
        out.append(payload);
    }
    request = std::move(out);
    return request;
}

void HttpProtocol::ParseResponse(const std::string& response) {
    responsePayload.clear();

    const auto headerEnd = response.size() < 4 ? std::string::npos : response.find(kHeaderEnd);
    if (headerEnd == std::string::npos) {
        responseStatusCode = kNoHeaderEndStatus;
        return;
    }
    responseHeader.assign(response, 0, headerEnd);
    if (responseHeader.size() < 4 || responseHeader.compare(0, 4, "HTTP") != 0) {
        return;
    }

    // The code follows the first blank; std::stoi throws when it has no digits.
    const auto blank = response.find(' ');
    const auto codeStart = blank == std::string::npos ? 0 : blank + 1;
    const int code = std::stoi(response.substr(codeStart, 3));
    responseStatusCode = static_cast<std::uint16_t>(code);
    if (!IsKnownStatus(responseStatusCode)) {
        responseStatusCode = kUnknownStatus;
    }

    if ((skipResponsePayload & kFlagBit) != 0) {
        return;
    }
    responsePayload.assign(response, headerEnd + kHeaderEnd.size(), std::string::npos);
}

bool HttpProtocol::IsKnownStatus(int code) {
    // 300 is deliberately absent, so it reads as unknown (255).
    return (code >= 100 && code <= 101) || (code >= 200 && code <= 206) ||
           (code >= 301 && code <= 305) || code == 307 || (code >= 400 && code <= 417) ||
           (code >= 500 && code <= 505);
}

}  // namespace csa_common
