#ifndef APP_KELVANE_CLIENT_HPP
#define APP_KELVANE_CLIENT_HPP

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/clock.hpp"
#include "app/collaborator_factory.hpp"
#include "app/update_state.hpp"
#include "backend/backend_connection_if.hpp"
#include "backend/request_params.hpp"
#include "csa_common/clamp_control_handler_cb_if.hpp"
#include "csa_common/clamp_control_handler_if.hpp"
#include "csa_common/mqtt_connection_cb_if.hpp"
#include "csa_common/mqtt_connection_if.hpp"
#include "process_lifecycle_adapter/process_lifecycle_adapter_callback_if.hpp"
#include "tee/zelk_online_update_api.hpp"
#include "vi_connector/vi_connector.hpp"
#include "vi_connector/vi_service_controller_callback_if.hpp"
#include "vi_connector/vi_session_callback_if.hpp"

namespace kelvane_client {

/// The client: owns every collaborator, receives all their callbacks and runs
/// the main loop on the calling thread. Callbacks (other threads) only set
/// atomic flags and wake the loop with SendTrigger(); the loop does all real
/// work, every blocking backend call included.
class KelvaneClient : public csa_common::ClampControlHandlerCbIf,
                      public csa_common::MqttConnectionCbIf,
                      public process_lifecycle_adapter::ProcessLifecycleAdapterCallbackIf,
                      public vi_connector::VISessionCallbackIf,
                      private vi_connector::VIServiceControllerCallbackIf {
public:
    /// Stands for "no time-out" in WaitForTrigger().
    static constexpr int kInfiniteTimeout = 100000;
    static constexpr const char* kComponentName = "kelvane-client";
    static constexpr const char* kVersion = "2.2.5-support-0.0.9";

    /// Creates the real collaborators and starts the VI connector (waits for
    /// its status). Throws std::runtime_error when a collaborator cannot be
    /// created; the cause has been logged.
    KelvaneClient();
    /// The same with the collaborators `factory` makes and the given clock.
    KelvaneClient(const CollaboratorFactory& factory, std::shared_ptr<Clock> clock);
    /// Ends MQTT delivery first: the shared connector must not call into the
    /// MQTT connection once it is released.
    ~KelvaneClient() override;
    KelvaneClient(const KelvaneClient&) = delete;
    KelvaneClient& operator=(const KelvaneClient&) = delete;

    /// Subscribes to the connection state, starts the clamp control client and
    /// connects MQTT; the MQTT subscription is left due for the first pass of
    /// the loop. Returns MqttInit()'s result (true: MQTT failed).
    bool Init();
    /// The main loop; returns after a termination request or a failed VI connector.
    void Main();

    // Wake-up and time-out of the main loop.
    void SendTrigger();
    void WaitForTrigger(int timeoutSeconds);
    /// Whole seconds, at least 1; kInfiniteTimeout when nothing is due.
    int CalculateTimeout() const;

    // Update triggers.
    /// 0 certificate valid for more than a year, 1 not readable, 2 update needed.
    std::uint8_t Clamp15Check(std::chrono::system_clock::time_point now) const;
    void HandleClampStateChange();
    void MqttFlushMessage() const;

    // The update procedure.
    /// The challenge when one was received, else an empty string.
    std::string HandleDlcUpdate();
    void SendStatusFeedBack(std::string challenge);
    /// True when both a bearer token and an invocation URL were obtained.
    bool GetTokenAndUrl(const std::string& operationTypeId, std::string& token, std::string& url);
    /// 0 when every parameter was obtained, 1 at the first failure.
    int SetRequestParameters(RequestParams& params);
    /// Best effort: a failure only logs a warning and the next one is tried.
    void SetFeedbackParameters(RequestParams& params);
    /// The 32 hexadecimal characters as 16 bytes, or empty when malformed.
    std::vector<std::uint8_t> ChallengeToByteBufferVector(const std::string& challenge) const;

    // Connectivity.
    void ViConnectorInit();
    void SubscribeToConnectionState();
    /// True on failure.
    bool MqttInit() const;
    /// True on failure.
    bool MqttSubscribe() const;
    /// True when the connection state is NOT good (anything but 2 and 3).
    bool CheckConnectionState() const;

    UpdateState GetUpdateState() const { return updateState_.load(); }

    // csa_common::ClampControlHandlerCbIf
    void ClampStateChangeCb(const std::string& clampName, bool state) override;
    void ClampControlConnectionStateChangeCb(bool connected) override;
    void ClampSubscribedCb() override;

    // csa_common::MqttConnectionCbIf
    void MQTTMessageReceivedCb() override;
    void MQTTResubscribeCb() override;
    void MQTTSubscribeFailedCb() override;

    // process_lifecycle_adapter::ProcessLifecycleAdapterCallbackIf
    void ProcessLifecycleAdapterTerminate() override;
    std::uint8_t ProcessLifecycleAdapterGetHealthStatus() override;

    // vi_connector::VISessionCallbackIf
    void VIConnectorStatus(vi_connector::SessionStatus status) override;

private:
    using TimePoint = std::chrono::system_clock::time_point;

    // vi_connector::VIServiceControllerCallbackIf
    void VISCSessionStatus(vi_connector::SCSessionStatus status) override;
    void VISCInvocationURL(vi_connector::SCUrlResult result) override;
    void VISCConnectionState(SCConnectionStateUpdate update) override;

    void RequestMqttSubscription(std::chrono::seconds delay);
    static const char* UpdateStateText(UpdateState state);

    // Declared before the collaborators so that it outlives their threads.
    std::shared_ptr<Clock> clock_;

    std::atomic<std::uint32_t> viConnectorStatus_{0};
    bool running_ = true;  // main thread only
    std::atomic<std::uint32_t> mqttIgnoreCount_{0};
    TimePoint clampSubscribeRetryAt_{};  // main thread only
    std::atomic<bool> terminateRequested_{false};
    std::atomic<bool> viConnectorFailed_{false};
    std::atomic<bool> mqttSubscribeRequested_{false};
    std::atomic<bool> updateByMqtt_{false};
    std::atomic<bool> clampServiceConnected_{false};
    std::atomic<bool> clampSubscribePending_{false};
    std::atomic<bool> clampStateChanged_{false};
    std::atomic<bool> triggerFlag_{false};
    std::atomic<UpdateState> updateState_{UpdateState::kIdle};
    std::atomic<std::uint8_t> connectionState_{0};
    std::atomic<bool> mqttSubscribed_{false};
    std::atomic<bool> clampSubscribed_{false};
    std::atomic<bool> readyReported_{false};
    // Written by MQTT callbacks, read by the loop: nanoseconds since the epoch.
    std::atomic<std::int64_t> mqttResubscribeAt_{0};
    std::mutex mutex_;
    std::condition_variable triggerCv_;

    // Released in reverse order: the clamp control handler first.
    std::shared_ptr<process_lifecycle_adapter::ProcessLifecycleAdapter> lifecycleAdapter_;
    std::shared_ptr<vi_connector::VIConnector> viConnector_;
    std::shared_ptr<qervo::tee::ZELKOnlineUpdateAPI> tee_;
    std::shared_ptr<csa_common::MqttConnectionIf> mqttConnection_;
    std::shared_ptr<BackendConnectionIf> backendConnection_;
    std::shared_ptr<csa_common::ClampControlHandlerIf> clampControlHandler_;
};

}  // namespace kelvane_client

#endif  // APP_KELVANE_CLIENT_HPP
