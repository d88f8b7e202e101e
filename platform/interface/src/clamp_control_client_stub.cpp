#include "clampcontrolclient/clamp_control_client.hpp"

namespace clampcontrolclient {

ClampControlClient::ClampControlClient() = default;
ClampControlClient::~ClampControlClient() = default;
void ClampControlClient::RegisterCallback(ClampControlCallbackIf*) {}
void ClampControlClient::Start() {}
std::string ClampControlClient::Subscribe() {
    return {};
}

}  // namespace clampcontrolclient
