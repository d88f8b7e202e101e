#ifndef CSA_COMMON_CLAMP_CONTROL_HANDLER_HPP
#define CSA_COMMON_CLAMP_CONTROL_HANDLER_HPP

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "clampcontrolclient/clamp_control_callback_if.hpp"
#include "clampcontrolclient/clamp_control_client.hpp"
#include "csa_common/clamp_control_handler_cb_if.hpp"
#include "csa_common/clamp_control_handler_if.hpp"

namespace csa_common {

/// Connects the client to the platform's clamp control service: subscribes to
/// the ignition state (blocking, or in a retry thread) and forwards the
/// platform's notifications to the owner, naming the clamp "Clamp15".
class ClampControlHandler : public ClampControlHandlerIf,
                            public clampcontrolclient::ClampControlCallbackIf {
public:
    /// Creates the platform client; makes no platform call. `callback` may be
    /// null; it is not owned.
    explicit ClampControlHandler(ClampControlHandlerCbIf* callback);
    /// For tests: the platform client and the pause between retries are given.
    ClampControlHandler(ClampControlHandlerCbIf* callback,
                        std::shared_ptr<clampcontrolclient::ClampControlClient> client,
                        std::function<void()> pauseBeforeRetry = &PauseBeforeRetry);
    /// Stops the retry thread (waiting out at most one pause and one attempt).
    ~ClampControlHandler() override;
    ClampControlHandler(const ClampControlHandler&) = delete;
    ClampControlHandler& operator=(const ClampControlHandler&) = delete;

    // ClampControlHandlerIf
    bool ClampControlInit() override;
    bool Subscribe() override;
    bool SubscribeNB() override;

    // clampcontrolclient::ClampControlCallbackIf
    void ConnectionStateNotification(bool connected) override;
    void ClampControlNotification(bool state) override;
    void ClampControlSubscribedNotification() override;

    /// The retry thread's pause: 500 ms, resumed when a signal interrupts it.
    static void PauseBeforeRetry();

private:
    bool SubscribeInternal();
    void SubscribeThread();

    std::shared_ptr<clampcontrolclient::ClampControlClient> clampControlClient_;
    ClampControlHandlerCbIf* callback_;
    std::unique_ptr<std::thread> retryThread_;
    std::string subscriptionId_;
    bool clampState_ = false;
    std::atomic<bool> keepSubscribing_{false};
    std::function<void()> pauseBeforeRetry_;
};

}  // namespace csa_common

#endif  // CSA_COMMON_CLAMP_CONTROL_HANDLER_HPP
