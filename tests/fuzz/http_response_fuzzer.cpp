// Raw responses as a backend (or anything on the other end of the socket)
// might send them, split by HttpProtocol::ParseResponse. The one way out by
// design is a status line whose code has no digits (std::invalid_argument
// "stoi"); every other exception escapes and is a finding.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

#include "csa_common/http_protocol.hpp"
#include "fuzz_check.hpp"
#include "fuzz_logging.hpp"

namespace {

using csa_common::HttpOption;
using csa_common::HttpProtocol;
using fuzz::Require;

// A parse leaves the header and status in place when the next response has no
// header end or is not HTTP; this one is parsed first so that is visible.
const std::string kPrevious = "HTTP/1.1 204 No Content\r\nServer: earlier\r\n\r\nold";
constexpr std::uint16_t kPreviousStatus = 204;
const std::string kPreviousHeader = "HTTP/1.1 204 No Content\r\nServer: earlier";

bool IsKnown(int code) {
    return (code >= 100 && code <= 101) || (code >= 200 && code <= 206) ||
           (code >= 301 && code <= 305) || code == 307 || (code >= 400 && code <= 417) ||
           (code >= 500 && code <= 505);
}

// The status as a decimal conversion of the three bytes after the first blank
// reads it (white space, sign, digits); empty when there is no digit.
std::optional<int> ExpectedCode(const std::string& response) {
    const auto blank = response.find(' ');
    const std::string field = response.substr(blank == std::string::npos ? 0 : blank + 1, 3);
    std::size_t i = 0;
    while (i < field.size() && std::isspace(static_cast<unsigned char>(field[i])) != 0) {
        ++i;
    }
    bool negative = false;
    if (i < field.size() && (field[i] == '+' || field[i] == '-')) {
        negative = field[i] == '-';
        ++i;
    }
    if (i >= field.size() || std::isdigit(static_cast<unsigned char>(field[i])) == 0) {
        return std::nullopt;
    }
    int value = 0;
    for (; i < field.size() && std::isdigit(static_cast<unsigned char>(field[i])) != 0; ++i) {
        value = value * 10 + (field[i] - '0');
    }
    return negative ? -value : value;
}

void Check(const std::string& response, bool skipPayload) {
    HttpProtocol sut;
    if (skipPayload) {
        sut.SetOption(HttpOption::SkipResponsePayload);
    }
    sut.ParseResponse(kPrevious);

    const auto headerEnd = response.size() < 4 ? std::string::npos : response.find("\r\n\r\n");
    const bool isHttp =
        headerEnd != std::string::npos && headerEnd >= 4 && response.compare(0, 4, "HTTP") == 0;
    const auto code = ExpectedCode(response);
    try {
        sut.ParseResponse(response);
    } catch (const std::invalid_argument& e) {
        Require(std::strcmp(e.what(), "stoi") == 0, "a code without digits throws \"stoi\"");
        Require(isHttp && !code, "only an HTTP status line without digits throws");
        return;
    }

    Require(sut.ResponsePayload().empty() || (isHttp && !skipPayload),
            "a payload only for an HTTP response whose payload is not skipped");
    if (headerEnd == std::string::npos) {
        Require(sut.ResponseStatusCode() == 4095, "no header end gives 4095");
        Require(sut.ResponseHeader() == kPreviousHeader, "no header end keeps the header");
        return;
    }
    Require(sut.ResponseHeader() == response.substr(0, headerEnd),
            "the header is everything before the first blank line");
    if (!isHttp) {
        Require(sut.ResponseStatusCode() == kPreviousStatus,
                "a non-HTTP response keeps the status");
        return;
    }
    Require(code.has_value(), "an HTTP status line without digits throws");
    const auto low16 = static_cast<std::uint16_t>(*code);
    Require(sut.ResponseStatusCode() == (IsKnown(low16) ? low16 : 255),
            "the status is the code, or 255 when it is not a known one");
    if (!skipPayload) {
        Require(sut.ResponsePayload() == response.substr(headerEnd + 4),
                "the payload is everything after the first blank line");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string response(reinterpret_cast<const char*>(data), size);
    Check(response, false);
    Check(response, true);
    return 0;
}
