#ifndef CLAMPCONTROLCLIENT_CLAMP_CONTROL_CLIENT_HPP
#define CLAMPCONTROLCLIENT_CLAMP_CONTROL_CLIENT_HPP

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "clampcontrolclient/clamp_control_callback_if.hpp"

namespace clampcontrolclient {

/// Client of the vehicle's clamp control (ignition) service on D-Bus (see
/// platform/idl/clamp_control.xml). Reports the service's presence, subscribes
/// to Clamp 15 and forwards its state. Every method is virtual so that a test
/// can derive a fake; the constructor makes no bus call.
class ClampControlClient {
public:
    ClampControlClient();
    virtual ~ClampControlClient();
    ClampControlClient(const ClampControlClient&) = delete;
    ClampControlClient& operator=(const ClampControlClient&) = delete;

    /// Where notifications go (not owned; null: nowhere). Set it before Start().
    virtual void RegisterCallback(ClampControlCallbackIf* callback);
    /// Connects to the bus (idl::BusAddress()), reports whether the service is
    /// there now and follows it from then on. An unreachable or lost bus is
    /// logged, reported as "not connected" and tried again (from 250 ms,
    /// doubling, at most every 5 s); once back, the service's presence is
    /// reported afresh. Start() does not throw.
    virtual void Start();
    /// Subscribes to Clamp 15: the subscription id, or an empty string when
    /// the service refused or is not there. Throws std::logic_error before
    /// Start() and sdbus::Error (a std::exception) on any other bus error.
    /// The current state arrives right after, as notifications.
    virtual std::string Subscribe();
    /// Leaves the bus; no notification after it returns. Not from a callback.
    virtual void Stop();

private:
    struct Bus;
    class ServiceProxy;

    void ReportConnection(bool connected);
    void ReportSubscribed();
    void ReportState(bool clamp15On);
    ClampControlCallbackIf* Callback();

    std::mutex mutex_;  // guards callback_ and lastConnected_
    ClampControlCallbackIf* callback_ = nullptr;
    std::optional<bool> lastConnected_;
    bool started_ = false;
    std::unique_ptr<Bus> bus_;
};

}  // namespace clampcontrolclient

#endif  // CLAMPCONTROLCLIENT_CLAMP_CONTROL_CLIENT_HPP
