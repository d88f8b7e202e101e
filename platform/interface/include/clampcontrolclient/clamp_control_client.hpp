#ifndef CLAMPCONTROLCLIENT_CLAMP_CONTROL_CLIENT_HPP
#define CLAMPCONTROLCLIENT_CLAMP_CONTROL_CLIENT_HPP

#include <string>

#include "clampcontrolclient/clamp_control_callback_if.hpp"

namespace clampcontrolclient {

/// Client of the vehicle's clamp control (ignition) service.
class ClampControlClient {
public:
    ClampControlClient();
    virtual ~ClampControlClient();
    ClampControlClient(const ClampControlClient&) = delete;
    ClampControlClient& operator=(const ClampControlClient&) = delete;

    virtual void RegisterCallback(ClampControlCallbackIf* callback);
    virtual void Start();
    /// The subscription id, empty on failure; may throw std::exception.
    virtual std::string Subscribe();
};

}  // namespace clampcontrolclient

#endif  // CLAMPCONTROLCLIENT_CLAMP_CONTROL_CLIENT_HPP
