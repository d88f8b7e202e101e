#include "vi_connector/vi_connector.hpp"

namespace vi_connector {

VIConnector::VIConnector(VISessionCallbackIf*, VIPubSubCallbackIf*) {}
VIConnector::~VIConnector() = default;
void VIConnector::Start() {}
void VIConnector::Stop() {}
SessionStatus VIConnector::GetSessionStatus() const {
    return SessionStatus::kNotStarted;
}
TokenResult VIConnector::GetToken(const std::string&) {
    return {};
}
UrlResult VIConnector::GetInvocationUrl(const std::string&) {
    return {};
}
unsigned int VIConnector::SubscribeTransactionTypeState(std::string, VIServiceControllerCallbackIf*,
                                                        unsigned int) {
    return 0;
}
SocketResult VIConnector::SocketConnect(const std::string&, const std::string&, std::uint16_t) {
    return {};
}
std::uint32_t VIConnector::PubSubConnect(VIPubSubCallbackIf*) {
    return pubsub_status::kFailed;
}
std::uint32_t VIConnector::PubSubDisconnect() {
    return pubsub_status::kFailed;
}
SubscribeResult VIConnector::PubSubSubscribe(const std::string&, bool) {
    return {};
}
std::uint32_t VIConnector::PubSubPublish(const std::string&, const std::vector<std::uint8_t>&,
                                         unsigned int, unsigned int, PublishPayloadFormat,
                                         const std::string&, bool) {
    return pubsub_status::kFailed;
}

}  // namespace vi_connector
