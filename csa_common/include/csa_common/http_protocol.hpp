#ifndef CSA_COMMON_HTTP_PROTOCOL_HPP
#define CSA_COMMON_HTTP_PROTOCOL_HPP

#include <cstdint>
#include <string>

namespace csa_common {

/// Settings of one request. Flags (InlinePutPayload, SkipResponsePayload) go
/// through SetOption(option); the others carry a string value. Any other
/// value, 0 or above 10 included, is ignored.
enum class HttpOption : std::uint8_t {
    InlinePutPayload = 1,
    Uri = 2,
    Host = 3,
    Connection = 4,
    ContentType = 5,
    ContentLength = 6,
    Authorization = 7,
    Accept = 8,
    Payload = 9,
    SkipResponsePayload = 10,
};

/// One HTTP/1.1 exchange in text form: builds the request bytes and splits
/// the raw response into status, header and payload. It does no I/O; a new
/// object is made for every exchange. The Authorization value and the built
/// request carry a bearer token: they are wiped when replaced and on
/// destruction, and the object is not copied.
class HttpProtocol {
public:
    /// Content-Length value that stands for the payload's real byte count.
    static constexpr const char* kActualContentLength = "__actual__";

    HttpProtocol();
    ~HttpProtocol();
    HttpProtocol(const HttpProtocol&) = delete;
    HttpProtocol& operator=(const HttpProtocol&) = delete;

    /// Clears the flags and string options, then sets Content-Type "text/html"
    /// and Content-Length "__actual__". Built request and response are kept.
    void SetDefaultValues();

    void SetOption(HttpOption option);
    /// An empty value leaves the header out of the request.
    void SetOption(HttpOption option, std::string value);

    /// Build the request, keep it (and its header part) and return it.
    const std::string& GET();
    const std::string& POST();
    const std::string& PUT();

    /// Splits a raw response. A response without a header end gets status
    /// 4095, a code outside the known list 255. A status line whose code has
    /// no digits throws std::invalid_argument ("stoi").
    void ParseResponse(const std::string& response);

    const std::string& RequestHeader() const { return requestHeader; }
    const std::string& RequestPayload() const { return payload; }
    const std::string& ResponseHeader() const { return responseHeader; }
    const std::string& ResponsePayload() const { return responsePayload; }
    std::uint16_t ResponseStatusCode() const { return responseStatusCode; }

private:
    enum class Method { kGet, kPost, kPut };

    const std::string& Build(Method method);
    static bool IsKnownStatus(int code);

    std::uint32_t options = 0;
    std::string uri;
    std::string payload;
    std::string host;
    std::string connection;
    std::string contentType;
    std::string authorization;
    std::string contentLength;
    std::string accept;
    std::uint32_t skipResponsePayload = 0;

    std::string request;
    std::string requestHeader;
    std::string responseHeader;
    std::uint16_t responseStatusCode = 0;
    std::string responsePayload;
};

}  // namespace csa_common

#endif  // CSA_COMMON_HTTP_PROTOCOL_HPP
