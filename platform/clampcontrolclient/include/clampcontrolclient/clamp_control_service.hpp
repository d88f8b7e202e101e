#ifndef CLAMPCONTROLCLIENT_CLAMP_CONTROL_SERVICE_HPP
#define CLAMPCONTROLCLIENT_CLAMP_CONTROL_SERVICE_HPP

#include <cstddef>
#include <memory>

namespace clampcontrolclient {

/// The clamp control service itself, for the vehicle simulator and tests:
/// serves platform/idl/clamp_control.xml on the bus (idl::BusAddress()) while
/// offered, hands out subscription ids and tells each subscriber, and only the
/// subscribers, about Clamp 15. Thread-safe.
class ClampControlService {
public:
    /// Connects to the bus in the background and stays on it: after the bus
    /// was lost or while it cannot be reached, it tries again (from 250 ms,
    /// doubling, at most every 5 s) and offers itself again once back.
    explicit ClampControlService(bool clamp15On = false);
    /// Stops offering and leaves the bus.
    ~ClampControlService();
    ClampControlService(const ClampControlService&) = delete;
    ClampControlService& operator=(const ClampControlService&) = delete;

    /// Takes the bus name: clients see the service appear. Throws sdbus::Error
    /// when the name cannot be had (for example another instance owns it).
    /// Without a bus, the name is taken once the bus is reachable.
    void Offer();
    /// Gives the bus name up: clients see the service go away and every
    /// subscription ends.
    void StopOffer();
    bool IsOffered() const;

    /// Sets Clamp 15; a change is sent to every subscriber.
    void SetClampState(bool clamp15On);
    bool ClampState() const;

    /// While false, Subscribe is answered with an empty id (a refusal).
    void SetAcceptSubscriptions(bool accept);
    std::size_t SubscriberCount() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace clampcontrolclient

#endif  // CLAMPCONTROLCLIENT_CLAMP_CONTROL_SERVICE_HPP
