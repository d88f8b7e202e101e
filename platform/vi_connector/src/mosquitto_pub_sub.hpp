#ifndef VI_CONNECTOR_MOSQUITTO_PUB_SUB_HPP
#define VI_CONNECTOR_MOSQUITTO_PUB_SUB_HPP

#include <mosquitto.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "broker_tls.hpp"
#include "connector_config.hpp"
#include "mqtt_packet_gate.hpp"
#include "reconnect_policy.hpp"
#include "vi_connector/vi_pub_sub_callback_if.hpp"
#include "vi_connector/vi_types.hpp"

namespace vi_connector {

/// The connector's MQTT channel: one libmosquitto session (MQTT 5 or 3.1.1,
/// kept by the broker between connections) served by a network thread of its
/// own, which reconnects as ReconnectPolicy says and delivers every
/// VIPubSubCallbackIf notification. Each connection runs through a
/// BrokerRelay, so no packet over MqttPacketGate's bound reaches libmosquitto.
/// The thread sleeps until the socket has traffic, a request arrives or a
/// keep-alive ping is due, so an idle link costs about two wake-ups per
/// keep-alive period.
///
/// Notifications are made on the network thread holding only the delivery
/// lock, which Disconnect() waits for; a callback may call back into this object.
class MosquittoPubSub {
public:
    MosquittoPubSub();
    ~MosquittoPubSub();
    MosquittoPubSub(const MosquittoPubSub&) = delete;
    MosquittoPubSub& operator=(const MosquittoPubSub&) = delete;

    /// Starts the session with `settings` and reports to `callback`
    /// (kDisconnected now, kConnected once the broker accepted it).
    /// kInProgress when started (or still connecting), kAlreadyOrQueued when the
    /// link is up already, kFailed when the session cannot be set up. A call on
    /// a running session only replaces a non-null callback.
    std::uint32_t Connect(const MqttSettings& settings, VIPubSubCallbackIf* callback);
    /// Sends DISCONNECT when connected and stops the session: kOk, or kFailed
    /// when no session was running. The end is neither notified nor logged
    /// (the owner asked for it, maybe while shutting down). When it returns no
    /// notification is under way (unless called from one) and none follows
    /// until the next Connect, so the callback's owner may destroy it.
    std::uint32_t Disconnect();
    /// Subscribes with QoS 1. Link up: kOk and the SUBSCRIBE's message id. Link
    /// down: with `queueWhileDown` kAlreadyOrQueued (sent, with a message id of
    /// its own, once the link is up), otherwise kFailed.
    SubscribeResult Subscribe(const std::string& topic, bool queueWhileDown);
    /// Publishes while the link is up (kOk); kFailed otherwise. The outcome
    /// arrives as VIPublishAcknowledgeReceived or VIPublishFailed.
    std::uint32_t Publish(const std::string& topic, const std::vector<std::uint8_t>& payload,
                          unsigned int qos, unsigned int messageExpirySeconds,
                          PublishPayloadFormat format, const std::string& contentType, bool retain);

private:
    // What libmosquitto reported during one mosquitto_loop() call; handled
    // after the call returns, outside libmosquitto's locks.
    struct Event {
        enum class Kind { kConnack, kMessage, kSuback, kPublished };
        explicit Event(Kind eventKind) : kind(eventKind) {}
        Kind kind;
        int code = 0;  // CONNACK reason, SUBACK reason, PUBACK reason
        int mid = 0;
        std::string topic;
        std::vector<std::uint8_t> payload;
    };
    struct Outgoing {
        std::string topic;
        int qos = 0;
    };

    static void OnConnect(mosquitto* client, void* self, int reason, int flags,
                          const mosquitto_property* properties);
    static void OnMessage(mosquitto* client, void* self, const mosquitto_message* message,
                          const mosquitto_property* properties);
    static void OnSubscribe(mosquitto* client, void* self, int mid, int count, const int* granted,
                            const mosquitto_property* properties);
    static void OnPublish(mosquitto* client, void* self, int mid, int reason,
                          const mosquitto_property* properties);
    void AddEvent(Event event);

    bool CreateClient();
    bool SetConnectProperties(mosquitto* client);
    int SendSubscribe(const std::string& topic, int& mid);
    void DestroyClient();
    bool OnNetworkThread() const;
    bool StopRequested() const;

    // How one connection attempt ended.
    struct SessionEnd {
        std::string failure;
        std::optional<int> refusal;  // the CONNACK's reason code
        std::optional<MqttPacketGate::Disconnect> disconnect;
    };

    void Run();
    SessionEnd RunSession();
    void ReportLinkDown(const SessionEnd& end, bool wasUp, bool report) const;
    void HandleEvents();
    void HandleConnack(int reason);
    bool HandleLinkDown(bool sessionEnds);
    bool WaitBeforeReconnect(std::chrono::milliseconds delay);
    void ReportState(VIPubSubCallbackIf::PubSubConnectionState state);
    // The callback for one or more notifications, held on to: Disconnect() waits
    // until it is released. Empty when no callback is set.
    class Notifier {
    public:
        Notifier(std::recursive_mutex& delivery, std::mutex& guard,
                 VIPubSubCallbackIf* const& callback);
        explicit operator bool() const { return callback_ != nullptr; }
        VIPubSubCallbackIf* operator->() const { return callback_; }

    private:
        std::unique_lock<std::recursive_mutex> delivery_;
        VIPubSubCallbackIf* callback_;
    };
    Notifier Callback() const;
    std::string Broker() const;

    std::mutex controlMutex_;  // serialises Connect, Disconnect and destruction
    std::thread thread_;
    std::atomic<std::thread::id> networkThreadId_{};
    MqttSettings settings_;         // written only while no network thread runs
    std::shared_ptr<SSL_CTX> tls_;  // with settings_, when they ask for TLS
    bool brokerLacksV5_ = false;    // kept from session to session
    // Network thread only (set up before it starts):
    int protocol_ = 0;             // MQTT_PROTOCOL_V5 or _V311
    bool fallBackToV311_ = false;  // reconnect at once with 3.1.1
    std::optional<int> connackRefusal_;
    std::optional<ReconnectPolicy> policy_;

    // Held while notifying, taken before mutex_; recursive because a callback
    // may disconnect from it.
    mutable std::recursive_mutex deliveryMutex_;
    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable wake_;
    mosquitto* client_ = nullptr;
    VIPubSubCallbackIf* callback_ = nullptr;
    bool sessionActive_ = false;  // Connect succeeded, no Disconnect yet
    bool stopRequested_ = false;
    bool linkUp_ = false;  // CONNACK accepted, link not lost since
    std::deque<std::string> queuedSubscriptions_;
    std::map<int, std::string> subscriptionsInFlight_;
    std::map<int, Outgoing> publishesInFlight_;

    std::mutex eventsMutex_;
    std::vector<Event> events_;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_MOSQUITTO_PUB_SUB_HPP
