#include "csa_common/http_protocol.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace csa_common {
namespace {

using namespace std::string_literals;

HttpProtocol WithAllHeaders() {
    HttpProtocol sut;
    sut.SetOption(HttpOption::Uri, "/a/b?x=1");
    sut.SetOption(HttpOption::Host, "backend.example");
    sut.SetOption(HttpOption::ContentType, "application/x+proto");
    sut.SetOption(HttpOption::Accept, "application/y+proto");
    sut.SetOption(HttpOption::Authorization, "Bearer t0k");
    sut.SetOption(HttpOption::Connection, "close");
    sut.SetOption(HttpOption::Payload, "\x0a\x02hi\x00z"s);
    return sut;
}

TEST(HttpProtocolTest, EveryMethodWritesItsHeadersInFixedOrder) {
    const std::string fields =
        " /a/b?x=1 HTTP/1.1\r\nHost: backend.example\r\nContent-Type: application/x+proto\r\n"
        "Accept: application/y+proto\r\n";
    const std::string tail = "Connection: close\r\nContent-Length: 6\r\n\r\n";
    const std::string body = "\x0a\x02hi\x00z"s;
    // PUT waits for 100-continue before its body and never sends the token.
    const struct {
        const char* name;
        const std::string& (HttpProtocol::*build)();
        bool inlinePut;
        std::string header;
        std::string sentBody;
    } cases[] = {
        {"GET", &HttpProtocol::GET, false, "GET" + fields + "Authorization: Bearer t0k\r\n" + tail,
         body},
        {"POST", &HttpProtocol::POST, false,
         "POST" + fields + "Authorization: Bearer t0k\r\n" + tail, body},
        {"PUT", &HttpProtocol::PUT, false, "PUT" + fields + "Expect: 100-continue\r\n" + tail, ""},
        {"inline PUT", &HttpProtocol::PUT, true, "PUT" + fields + tail, body},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto sut = WithAllHeaders();
        if (c.inlinePut) {
            sut.SetOption(HttpOption::InlinePutPayload);
        }

        EXPECT_EQ((sut.*c.build)(), c.header + c.sentBody);
        EXPECT_EQ(sut.RequestHeader(), c.header);
        EXPECT_EQ(sut.RequestPayload(), body);
    }
}

TEST(HttpProtocolTest, ExplicitContentLengthIsSentAsGivenWhateverThePayload) {
    HttpProtocol sut;
    sut.SetOption(HttpOption::Uri, "/");
    sut.SetOption(HttpOption::ContentLength, "12");
    sut.SetOption(HttpOption::Payload, "abc");

    EXPECT_EQ(sut.POST(),
              "POST / HTTP/1.1\r\nContent-Type: text/html\r\nContent-Length: 12\r\n\r\nabc");
}

TEST(HttpProtocolTest, EmptyValuesLeaveTheirHeadersOutEntirely) {
    HttpProtocol sut;
    sut.SetOption(HttpOption::Host, "h");
    sut.SetOption(HttpOption::ContentType, "");
    sut.SetOption(HttpOption::ContentLength, "");
    sut.SetOption(HttpOption::Authorization, "");
    sut.SetOption(HttpOption::Payload, "body");

    EXPECT_EQ(sut.GET(), "GET  HTTP/1.1\r\nHost: h\r\n\r\nbody");
    EXPECT_EQ(sut.PUT(), "PUT  HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\n\r\n");
}

TEST(HttpProtocolTest, OptionsOfTheWrongKindOrOutOfRangeAreIgnored) {
    HttpProtocol sut;
    sut.SetOption(HttpOption::Uri, "/u");
    sut.SetOption(static_cast<HttpOption>(0), "zero");
    sut.SetOption(static_cast<HttpOption>(11), "eleven");
    sut.SetOption(static_cast<HttpOption>(0));
    sut.SetOption(static_cast<HttpOption>(255));
    sut.SetOption(HttpOption::InlinePutPayload, "not a string option");
    sut.SetOption(HttpOption::Host);  // not a flag

    EXPECT_EQ(sut.PUT(),
              "PUT /u HTTP/1.1\r\nContent-Type: text/html\r\nExpect: 100-continue\r\n"
              "Content-Length: 0\r\n\r\n");
}

TEST(HttpProtocolTest, SetDefaultValuesClearsSettingsButKeepsTheLastRequest) {
    auto sut = WithAllHeaders();
    sut.SetOption(HttpOption::InlinePutPayload);
    sut.SetOption(HttpOption::SkipResponsePayload);
    const std::string built = sut.GET();

    sut.SetDefaultValues();

    EXPECT_EQ(sut.RequestHeader(), built.substr(0, built.find("\r\n\r\n") + 4));
    EXPECT_EQ(sut.RequestPayload(), "");
    EXPECT_EQ(sut.PUT(),
              "PUT  HTTP/1.1\r\nContent-Type: text/html\r\nExpect: 100-continue\r\n"
              "Content-Length: 0\r\n\r\n");
    sut.ParseResponse("HTTP/1.1 200 OK\r\n\r\npayload");
    EXPECT_EQ(sut.ResponsePayload(), "payload");
}

struct ParseCase {
    std::string name;
    std::string response;
    std::uint16_t status;
    std::string header;
    std::string payload;
    std::string previous = "";
    bool skipPayload = false;
};

void PrintTo(const ParseCase& parseCase, std::ostream* out) {
    *out << parseCase.name;
}

class HttpResponseParseTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P(HttpResponseParseTest, SplitsStatusHeaderAndPayload) {
    const auto& param = GetParam();
    HttpProtocol sut;
    if (param.skipPayload) {
        sut.SetOption(HttpOption::SkipResponsePayload);
    }
    if (!param.previous.empty()) {
        sut.ParseResponse(param.previous);
    }

    sut.ParseResponse(param.response);

    EXPECT_EQ(sut.ResponseStatusCode(), param.status);
    EXPECT_EQ(sut.ResponseHeader(), param.header);
    EXPECT_EQ(sut.ResponsePayload(), param.payload);
}

INSTANTIATE_TEST_SUITE_P(
    Responses, HttpResponseParseTest,
    ::testing::Values(
        ParseCase{"OkWithBody", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc", 200,
                  "HTTP/1.1 200 OK\r\nContent-Length: 3", "abc"},
        ParseCase{"BinaryBodyKeptWhole", "HTTP/1.1 200 OK\r\n\r\n\x00\r\n\r\n\xff"s, 200,
                  "HTTP/1.1 200 OK", "\x00\r\n\r\n\xff"s},
        ParseCase{"NoContent", "HTTP/1.1 204 No Content\r\n\r\n", 204, "HTTP/1.1 204 No Content",
                  ""},
        ParseCase{"MultipleChoicesIsUnknown", "HTTP/1.1 300 Multiple Choices\r\n\r\n", 255,
                  "HTTP/1.1 300 Multiple Choices", ""},
        ParseCase{"TeapotIsUnknown", "HTTP/1.1 418 I'm a teapot\r\n\r\nx", 255,
                  "HTTP/1.1 418 I'm a teapot", "x"},
        ParseCase{"UnusedIsUnknown", "HTTP/1.1 306 Unused\r\n\r\n", 255, "HTTP/1.1 306 Unused", ""},
        ParseCase{"TemporaryRedirect", "HTTP/1.1 307 X\r\n\r\n", 307, "HTTP/1.1 307 X", ""},
        ParseCase{"LastKnownClientError", "HTTP/1.1 417 X\r\n\r\n", 417, "HTTP/1.1 417 X", ""},
        ParseCase{"LastKnownServerError", "HTTP/1.1 505 X\r\n\r\n", 505, "HTTP/1.1 505 X", ""},
        ParseCase{"PastKnownServerErrors", "HTTP/1.1 506 X\r\n\r\n", 255, "HTTP/1.1 506 X", ""},
        ParseCase{"SwitchingProtocols", "HTTP/1.1 101 X\r\n\r\n", 101, "HTTP/1.1 101 X", ""},
        ParseCase{"NegativeCodeIsUnknown", "HTTP/1.1 -1 X\r\n\r\n", 255, "HTTP/1.1 -1 X", ""},
        ParseCase{"CodeOfTwoDigits", "HTTP/1.1 20\r\n\r\n", 255, "HTTP/1.1 20", ""},
        ParseCase{"ContinueThenFinalInOneBuffer",
                  "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\nabc", 100,
                  "HTTP/1.1 100 Continue", "HTTP/1.1 200 OK\r\n\r\nabc"},
        ParseCase{"NoHeaderEnd", "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n", 4095, "", ""},
        ParseCase{"Empty", "", 4095, "", ""},
        ParseCase{"ShorterThanFourBytes", "\r\n\r", 4095, "", ""},
        ParseCase{"OnlyHeaderEnd", "\r\n\r\n", 0, "", ""},
        ParseCase{"NoHeaderEndKeepsThePreviousHeader", "HTTP/1.1 500 Internal", 4095,
                  "HTTP/1.1 200 OK\r\nA: b", "", "HTTP/1.1 200 OK\r\nA: b\r\n\r\nold"},
        ParseCase{"NotHttpKeepsThePreviousStatus", "ICY 200 OK\r\n\r\nnew", 404, "ICY 200 OK", "",
                  "HTTP/1.1 404 Not Found\r\n\r\nold"},
        ParseCase{"SkipResponsePayload", "HTTP/1.1 201 Created\r\nX: y\r\n\r\nbody", 201,
                  "HTTP/1.1 201 Created\r\nX: y", "", "", true}),
    [](const ::testing::TestParamInfo<ParseCase>& testInfo) { return testInfo.param.name; });

TEST(HttpProtocolTest, StatusWithoutDigitsThrowsTheConversionError) {
    HttpProtocol sut;

    try {
        sut.ParseResponse("HTTP/1.1 OK\r\n\r\n");
        FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "stoi");
    }
    // Without a blank the first three bytes ("HTT") are read.
    EXPECT_THROW(sut.ParseResponse("HTTP/1.1\r\nX:1\r\n\r\n"), std::invalid_argument);
}

}  // namespace
}  // namespace csa_common
