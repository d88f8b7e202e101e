#ifndef VI_CONNECTOR_VI_TYPES_HPP
#define VI_CONNECTOR_VI_TYPES_HPP

#include <cstdint>
#include <string>

namespace vi_connector {

/// Result of Start(), reported through VISessionCallbackIf::VIConnectorStatus.
/// kOk and kRejected are the values the client acts on; any other is a failure.
enum class SessionStatus : std::uint32_t {
    kNotStarted = 0,
    kStarting = 1,
    kOk = 2,
    kRejected = 3,  // missing or broken configuration
    kFailed = 4,
};

/// Session status of the service controller (reported, not acted upon).
enum class SCSessionStatus : std::uint32_t { kNotStarted = 0, kStarting = 1, kOk = 2, kFailed = 3 };

/// Asynchronous invocation-URL answer of the service controller.
struct SCUrlResult {
    std::uint32_t status = 1;  // 0: url holds the URL
    std::string transactionTypeId;
    std::string url;
};

/// GetToken: status 1 means `token` holds a bearer token.
struct TokenResult {
    std::uint32_t status = 0;
    std::string token;
};

/// GetInvocationUrl: status 0 means `url` holds the invocation URL.
struct UrlResult {
    std::uint32_t status = 1;
    std::string url;
};

/// SocketConnect: status 0 and a connected TCP descriptor, or a non-zero status and -1.
struct SocketResult {
    std::uint32_t status = 1;
    int fd = -1;
};

/// PubSubSubscribe: status 0 request sent, 3 queued until the broker link is
/// up; requestId is the MQTT message id of the SUBSCRIBE.
struct SubscribeResult {
    std::uint32_t status = 1;
    std::uint16_t requestId = 0;
};

enum class PublishPayloadFormat : std::uint32_t { kUnspecified = 0, kUtf8 = 1 };

/// Status codes of the pub/sub operations.
namespace pubsub_status {
constexpr std::uint32_t kOk = 0;               // connected, request sent
constexpr std::uint32_t kInProgress = 1;       // connection under way
constexpr std::uint32_t kFailed = 2;           // refused or invalid
constexpr std::uint32_t kAlreadyOrQueued = 3;  // already connected / queued until connected
}  // namespace pubsub_status

}  // namespace vi_connector

#endif  // VI_CONNECTOR_VI_TYPES_HPP
