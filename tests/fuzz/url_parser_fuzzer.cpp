// Invocation URLs as the connector configuration might hold them, split by
// both forms of HttpConnection::UrlParser. A URL that parses must put back
// together from its parts; one that does not must give an empty host.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "csa_common/http_connection.hpp"
#include "fuzz_check.hpp"
#include "fuzz_logging.hpp"

namespace {

using csa_common::HttpConnection;
using csa_common::ParsedUrl;
using fuzz::Require;

std::string Lower(std::string text) {
    for (auto& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// The authority is the host, bracketed when it holds a colon, then an
// optional ":" and the port.
void CheckAuthority(const std::string& authority, const ParsedUrl& parsed) {
    const bool bracketed =
        parsed.host.find(':') != std::string::npos || (!authority.empty() && authority[0] == '[');
    const std::string host = bracketed ? "[" + parsed.host + "]" : parsed.host;
    Require(authority.compare(0, host.size(), host) == 0, "the authority starts with the host");
    Require(parsed.host.find('/') == std::string::npos, "the host holds no \"/\"");
    const std::string rest = authority.substr(host.size());
    if (rest.empty()) {
        const bool https = Lower(parsed.protocol) == "https";
        Require(parsed.port == (https ? 443 : 80), "a URL without a port gets the default one");
        return;
    }
    Require(rest[0] == ':', "only a port follows the host");
    // Converted as stoi would (blanks and a sign first, digits up to the first
    // other character), the low 16 bits kept.
    int written = 0;
    try {
        written = std::stoi(rest.substr(1));
    } catch (const std::logic_error&) {
        fuzz::Fail("a port that parses converts");
    }
    Require(parsed.port == static_cast<std::uint16_t>(written), "the port is the number written");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string url(reinterpret_cast<const char*>(data), size);
    const HttpConnection sut(nullptr);

    ParsedUrl parsed;
    const bool failed = sut.UrlParser(url, parsed);
    const ParsedUrl byValue = HttpConnection::UrlParser(url);

    if (failed) {
        Require(byValue.host.empty(), "a URL that does not parse gives an empty host");
        return 0;
    }
    Require(!parsed.host.empty(), "a URL that parses has a host");
    Require(byValue.protocol == parsed.protocol && byValue.host == parsed.host &&
                byValue.port == parsed.port && byValue.path == parsed.path,
            "both forms of the parser agree");

    const auto separator = url.find("://");
    Require(separator != std::string::npos && url.compare(0, separator, parsed.protocol) == 0,
            "the protocol is the text before \"://\"");
    const std::string protocol = Lower(parsed.protocol);
    Require(protocol == "http" || protocol == "https", "only http and https are parsed");
    Require(parsed.path.empty() || parsed.path[0] == '/', "the path starts with \"/\"");

    const auto authorityStart = separator + 3;
    Require(url.size() >= authorityStart + parsed.path.size() &&
                url.compare(url.size() - parsed.path.size(), parsed.path.size(), parsed.path) == 0,
            "the path is the end of the URL");
    const std::string authority =
        url.substr(authorityStart, url.size() - authorityStart - parsed.path.size());
    Require(authority.find('/') == std::string::npos, "the path starts at the first \"/\"");
    CheckAuthority(authority, parsed);
    return 0;
}
