#ifndef CLAMPCONTROLCLIENT_CLAMP_CONTROL_CALLBACK_IF_HPP
#define CLAMPCONTROLCLIENT_CLAMP_CONTROL_CALLBACK_IF_HPP

namespace clampcontrolclient {

/// Notifications of the clamp control client, made on a thread of its own
/// (the host's: its bus thread, and the first connection state from Start()).
class ClampControlCallbackIf {
public:
    virtual ~ClampControlCallbackIf() = default;
    /// The clamp control service appeared (true) or went away (false).
    virtual void ConnectionStateNotification(bool connected) = 0;
    /// Clamp 15 state: once right after a subscription, then on every change.
    virtual void ClampControlNotification(bool clamp15On) = 0;
    /// The service confirmed a subscription; the current state follows.
    virtual void ClampControlSubscribedNotification() = 0;
};

}  // namespace clampcontrolclient

#endif  // CLAMPCONTROLCLIENT_CLAMP_CONTROL_CALLBACK_IF_HPP
