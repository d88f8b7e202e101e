#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/child_process.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/mosquitto_dynamic_security.hpp"
#include "test_support/temporary_directory.hpp"
#include "test_support/test_certificates.hpp"
#include "test_support/thread_state.hpp"
#include "vi_connector/vi_connector.hpp"

namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::MosquittoBroker;
using kelvane::testing::TemporaryDirectory;

constexpr auto kTimeout = 10s;

// Every notification as one record, in arrival order.
struct Notification {
    enum class Kind {
        kState,
        kMessage,
        kPublishAck,
        kSubscribeAck,
        kPublishFailed,
        kSubscribeFailed
    };
    Kind kind;
    std::string topic;
    int value;  // state or subscription status
    std::uint32_t id = 0;
    std::vector<std::uint8_t> payload = {};
};

class RecordingPubSubCallback : public VIPubSubCallbackIf {
public:
    using Kind = Notification::Kind;

    void VIPubSubConnectionState(PubSubConnectionState state) override {
        Add({Kind::kState, {}, state});
    }
    void VIPublishReceived(const std::string& topic, const std::vector<std::uint8_t>& payload,
                           std::uint32_t messageId) override {
        Add({Kind::kMessage, topic, 0, messageId, payload});
    }
    void VIPublishAcknowledgeReceived(const std::string& topic, std::uint16_t requestId) override {
        Add({Kind::kPublishAck, topic, 0, requestId});
    }
    void VISubscribeAcknowledgeReceived(const std::string& topic, SubscriptionStatus status,
                                        std::uint16_t requestId) override {
        Add({Kind::kSubscribeAck, topic, status, requestId});
    }
    void VIUnsubscribeAcknowledgeReceived(const std::string&, std::uint16_t) override {}
    void VIPublishFailed(const std::string& topic, std::uint16_t requestId) override {
        Add({Kind::kPublishFailed, topic, 0, requestId});
    }
    void VISubscribeFailed(const std::string& topic, std::uint16_t requestId) override {
        Add({Kind::kSubscribeFailed, topic, 0, requestId});
    }
    void VIUnsubscribeFailed(const std::string&, std::uint16_t) override {}

    /// Waits until `count` notifications of `kind` arrived; returns them.
    std::vector<Notification> WaitFor(Kind kind, std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kTimeout, [&] { return OfKindLocked(kind).size() >= count; });
        return OfKindLocked(kind);
    }
    /// The connection states so far, once there are `count` of them.
    std::vector<int> WaitForStates(std::size_t count = 0) {
        std::vector<int> states;
        for (const auto& notification : WaitFor(Kind::kState, count)) {
            states.push_back(notification.value);
        }
        return states;
    }

private:
    void Add(Notification notification) {
        std::lock_guard<std::mutex> lock(mutex_);
        notifications_.push_back(std::move(notification));
        changed_.notify_all();
    }
    std::vector<Notification> OfKindLocked(Kind kind) const {
        std::vector<Notification> found;
        for (const auto& notification : notifications_) {
            if (notification.kind == kind) {
                found.push_back(notification);
            }
        }
        return found;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Notification> notifications_;
};

class NullSessionCallback : public VISessionCallbackIf {
public:
    void VIConnectorStatus(SessionStatus) override {}
};

// A connector configured for `port`, started and ready.
class StartedConnector {
public:
    StartedConnector(std::uint16_t port, const std::string& clientId,
                     const std::string& extraMqtt = "") {
        const auto path = directory_.Write(
            "vi.ini",
            "[mqtt]\nhost=127.0.0.1\nport=" + std::to_string(port) + "\nclient_id=" + clientId +
                "\nkeep_alive=5\nreconnect_delay_min_ms=50\nreconnect_delay_max_ms=400\n" +
                extraMqtt +
                "[transaction t]\nurl=http://127.0.0.1:1/\ntoken=x\n"
                "[connection_state]\nmode=fixed\n");
        connector_ = std::make_unique<VIConnector>(&session_, nullptr, path);
        connector_->Start();
        kelvane::testing::WaitUntil(
            [&] { return connector_->GetSessionStatus() == SessionStatus::kOk; }, kTimeout);
    }
    VIConnector& operator*() { return *connector_; }
    VIConnector* operator->() { return connector_.get(); }

private:
    TemporaryDirectory directory_;
    NullSessionCallback session_;
    std::unique_ptr<VIConnector> connector_;
};

// Publishes `payload` (read from a file, so any bytes) as another client would.
void PublishFromOtherClient(const MosquittoBroker& broker, const std::string& topic,
                            const std::string& payload) {
    TemporaryDirectory directory;
    const auto file = directory.Write("payload.bin", payload);
    ChildProcess publisher({{"mosquitto_pub", "-h", "127.0.0.1", "-p",
                             std::to_string(broker.Port()), "-q", "1", "-t", topic, "-f", file},
                            {},
                            directory.File("out.txt")});
    ASSERT_EQ(publisher.WaitForExit(kTimeout), std::optional<int>(0))
        << kelvane::testing::ReadFile(directory.File("out.txt"));
}

std::vector<std::uint8_t> Bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

using Kind = Notification::Kind;

// Connects `callback`'s session and, given a topic, subscribes to it and waits for the grant.
bool Connected(VIConnector& sut, RecordingPubSubCallback& callback, const std::string& topic = "") {
    if (sut.PubSubConnect(&callback) != pubsub_status::kInProgress ||
        callback.WaitForStates(2).size() != 2U) {
        return false;
    }
    return topic.empty() || (sut.PubSubSubscribe(topic, true).status == pubsub_status::kOk &&
                             callback.WaitFor(Kind::kSubscribeAck, 1).size() == 1U);
}

TEST(MosquittoPubSubTest, ConnectsSubscribesAndPassesBinaryMessagesBothWaysUnchanged) {
    TemporaryDirectory security;
    MosquittoBroker broker(kelvane::testing::DenySubscriptionsConfig(security, "secret/#"));
    RecordingPubSubCallback callback;
    StartedConnector sut(broker.Port(), "kv-receive");

    EXPECT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    EXPECT_EQ(callback.WaitForStates(2), (std::vector<int>{1, 0}));
    EXPECT_EQ(sut->PubSubConnect(&callback), pubsub_status::kAlreadyOrQueued);
    const auto subscribed = sut->PubSubSubscribe("push/ecu", true);
    const auto denied = sut->PubSubSubscribe("secret/keys", true);
    ASSERT_EQ(subscribed.status, pubsub_status::kOk);
    const auto acks = callback.WaitFor(Kind::kSubscribeAck, 2);
    ASSERT_EQ(acks.size(), 2U);
    EXPECT_EQ(acks[0].topic, "push/ecu");
    EXPECT_EQ(acks[0].value, VIPubSubCallbackIf::kGranted);
    EXPECT_EQ(acks[0].id, subscribed.requestId);
    EXPECT_EQ(acks[1].topic, "secret/keys");
    EXPECT_EQ(acks[1].value, VIPubSubCallbackIf::kRefused);
    EXPECT_EQ(acks[1].id, denied.requestId);

    const std::string payload("\x00\x01zelk\x00\xff", 8);
    PublishFromOtherClient(broker, "push/ecu", payload);
    PublishFromOtherClient(broker, "push/ecu", "second");

    const auto messages = callback.WaitFor(Kind::kMessage, 2);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].topic, "push/ecu");
    EXPECT_EQ(messages[0].payload, Bytes(payload));
    EXPECT_EQ(messages[1].payload, Bytes("second"));

    // Several reads long, yet under the 64 KiB the connector accepts from a broker.
    std::vector<std::uint8_t> large(60000);
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<std::uint8_t>(i * 7);
    }
    EXPECT_EQ(sut->PubSubPublish("push/ecu", large, 1, 60, PublishPayloadFormat::kUnspecified,
                                 "application/octet-stream", false),
              pubsub_status::kOk);
    EXPECT_EQ(sut->PubSubPublish("push/ecu", {}, 0, 0, PublishPayloadFormat::kUtf8, "", false),
              pubsub_status::kOk);
    EXPECT_NE(
        sut->PubSubPublish("push/ecu", large, 3, 0, PublishPayloadFormat::kUnspecified, "", false),
        pubsub_status::kOk);

    EXPECT_EQ(callback.WaitFor(Kind::kPublishAck, 2).size(), 2U);
    const auto returned = callback.WaitFor(Kind::kMessage, 4);
    ASSERT_EQ(returned.size(), 4U);
    EXPECT_EQ(returned[2].payload, large);
    EXPECT_TRUE(returned[3].payload.empty());
}

TEST(MosquittoPubSubTest, SubscriptionWhileTheBrokerIsDownIsQueuedAndSentOnceItIsUp) {
    MosquittoBroker broker;
    broker.Stop();
    csc_logging::LogCapture log;
    RecordingPubSubCallback callback;
    StartedConnector sut(broker.Port(), "kv-queue");

    ASSERT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    const auto queued = sut->PubSubSubscribe("push/queued", true);
    const auto refused = sut->PubSubSubscribe("push/not-queued", false);
    // Several attempts fail before the broker comes: one warning, not one per attempt.
    ASSERT_TRUE(log.WaitFor("still unreachable", kTimeout, 2));
    broker.Start();

    EXPECT_EQ(queued.status, pubsub_status::kAlreadyOrQueued);
    EXPECT_NE(refused.status, pubsub_status::kOk);
    EXPECT_NE(refused.status, pubsub_status::kAlreadyOrQueued);
    EXPECT_EQ(callback.WaitForStates(2), (std::vector<int>{1, 0}));
    const auto acks = callback.WaitFor(Kind::kSubscribeAck, 1);
    ASSERT_EQ(acks.size(), 1U);
    EXPECT_EQ(acks[0].topic, "push/queued");
    EXPECT_EQ(acks[0].value, VIPubSubCallbackIf::kGranted);
    PublishFromOtherClient(broker, "push/queued", "after the outage");
    EXPECT_EQ(callback.WaitFor(Kind::kMessage, 1).size(), 1U);
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kWarning, "cannot connect to MQTT broker"), 1U);
}

TEST(MosquittoPubSubTest, BrokerRestartIsReportedAsOneDisconnectConnectPair) {
    MosquittoBroker broker;
    RecordingPubSubCallback callback;
    StartedConnector sut(broker.Port(), "kv-restart");
    ASSERT_TRUE(Connected(*sut, callback, "push/restart"));

    broker.Restart();

    EXPECT_EQ(callback.WaitForStates(4), (std::vector<int>{1, 0, 1, 0}));
    // The broker forgot the subscription (clean start): it is made again.
    ASSERT_EQ(sut->PubSubSubscribe("push/restart", true).status, pubsub_status::kOk);
    ASSERT_EQ(callback.WaitFor(Kind::kSubscribeAck, 2).size(), 2U);
    PublishFromOtherClient(broker, "push/restart", "again");
    const auto messages = callback.WaitFor(Kind::kMessage, 1);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].payload, Bytes("again"));
    EXPECT_EQ(callback.WaitForStates().size(), 4U);
    EXPECT_TRUE(callback.WaitFor(Kind::kSubscribeFailed, 0).empty());
}

TEST(MosquittoPubSubTest, MisuseFailsWithAClearLineAndDisconnectEndsTheSession) {
    MosquittoBroker broker;
    csc_logging::LogCapture log;
    RecordingPubSubCallback callback;
    NullSessionCallback session;
    VIConnector notStarted(&session, &callback, "/nonexistent/vi.ini");

    EXPECT_EQ(notStarted.PubSubConnect(&callback), pubsub_status::kFailed);
    EXPECT_TRUE(
        log.Contains(csc_logging::LogLevel::kError, "PubSubConnect before a successful Start()"));
    EXPECT_EQ(notStarted.PubSubSubscribe("a/b", true).status, pubsub_status::kFailed);
    EXPECT_EQ(notStarted.PubSubDisconnect(), pubsub_status::kFailed);

    StartedConnector sut(broker.Port(), "kv-misuse");
    ASSERT_TRUE(Connected(*sut, callback));
    EXPECT_EQ(sut->PubSubSubscribe("bad/#/filter", true).status, pubsub_status::kFailed);
    EXPECT_TRUE(log.Contains("not a valid MQTT topic filter"));

    EXPECT_EQ(sut->PubSubDisconnect(), pubsub_status::kOk);
    EXPECT_EQ(callback.WaitForStates(), (std::vector<int>{1, 0, 1}));
    EXPECT_EQ(sut->PubSubDisconnect(), pubsub_status::kFailed);
    EXPECT_EQ(sut->PubSubSubscribe("a/b", true).status, pubsub_status::kFailed);
    EXPECT_EQ(sut->PubSubPublish("a/b", {1}, 0, 0, PublishPayloadFormat::kUnspecified, "", false),
              pubsub_status::kFailed);
    // The same connector connects again.
    EXPECT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    EXPECT_EQ(callback.WaitForStates(5), (std::vector<int>{1, 0, 1, 1, 0}));
}

TEST(MosquittoPubSubTest, DestroyedConnectorTellsTheCallbackNothingMore) {
    // The owner of the callback may be gone before the connector is destroyed.
    MosquittoBroker broker;
    RecordingPubSubCallback callback;
    {
        StartedConnector sut(broker.Port(), "kv-destroyed");
        ASSERT_TRUE(Connected(*sut, callback, "push/#"));
    }

    EXPECT_EQ(callback.WaitForStates(), (std::vector<int>{1, 0}));
    EXPECT_TRUE(callback.WaitFor(Kind::kSubscribeFailed, 0).empty());
}

// Holds a received message in its notification until the test opens the gate.
class GatedCallback : public RecordingPubSubCallback {
public:
    void VIPublishReceived(const std::string& topic, const std::vector<std::uint8_t>& payload,
                           std::uint32_t messageId) override {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            inside_ = true;
            changed_.notify_all();
            changed_.wait_for(lock, kTimeout, [&] { return open_; });
            left_ = true;
        }
        RecordingPubSubCallback::VIPublishReceived(topic, payload, messageId);
    }
    bool WaitUntilInside() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kTimeout, [&] { return inside_; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool Left() {
        std::lock_guard<std::mutex> lock(mutex_);
        return left_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool inside_ = false;
    bool open_ = false;
    bool left_ = false;
};

TEST(MosquittoPubSubTest, DisconnectWaitsForTheNotificationUnderWayAndNothingFollowsIt) {
    MosquittoBroker broker;
    // Declared first: the callbacks outlive the connector that calls them.
    GatedCallback disconnected;
    RecordingPubSubCallback next;
    StartedConnector sut(broker.Port(), "kv-disconnect");
    ASSERT_TRUE(Connected(*sut, disconnected, "push/#"));
    PublishFromOtherClient(broker, "push/1", "first");
    ASSERT_TRUE(disconnected.WaitUntilInside());

    // The callback's owner ends delivery while the message is being handed over.
    std::atomic<pid_t> ownerThread{0};
    std::atomic<bool> returned{false};
    bool leftBeforeReturn = false;
    std::thread owner([&] {
        ownerThread = kelvane::testing::CurrentThreadId();
        sut->PubSubDisconnect();
        leftBeforeReturn = disconnected.Left();
        returned = true;
    });
    const bool settled = kelvane::testing::WaitUntil(
        [&] {
            return returned || (ownerThread != 0 && kelvane::testing::ThreadIsBlocked(ownerThread));
        },
        kTimeout, 1ms);
    const bool returnedWhileInside = returned;
    disconnected.Open();
    owner.join();

    EXPECT_TRUE(settled);
    EXPECT_FALSE(returnedWhileInside);
    EXPECT_TRUE(leftBeforeReturn);
    // A new session without a callback of its own does not revive the old one;
    // a new callback gets what follows, the old one nothing.
    const auto statesAtDisconnect = disconnected.WaitForStates();
    ASSERT_EQ(sut->PubSubConnect(nullptr), pubsub_status::kInProgress);
    ASSERT_TRUE(kelvane::testing::WaitUntil(
        [&] { return sut->PubSubSubscribe("push/#", false).status == pubsub_status::kOk; },
        kTimeout));
    EXPECT_EQ(sut->PubSubConnect(&next), pubsub_status::kAlreadyOrQueued);
    ASSERT_EQ(sut->PubSubSubscribe("push/#", true).status, pubsub_status::kOk);
    // The acknowledgement of the first SUBSCRIBE may come to it as well.
    ASSERT_FALSE(next.WaitFor(Kind::kSubscribeAck, 1).empty());
    PublishFromOtherClient(broker, "push/2", "second");
    ASSERT_EQ(next.WaitFor(Kind::kMessage, 1).size(), 1U);
    EXPECT_EQ(next.WaitFor(Kind::kMessage, 1).front().topic, "push/2");
    EXPECT_EQ(disconnected.WaitFor(Kind::kMessage, 0).size(), 1U);
    EXPECT_EQ(disconnected.WaitForStates(), statesAtDisconnect);
}

TEST(MosquittoPubSubTest, TlsBrokerIsReachedOnlyWithTheRightCertificateAuthority) {
    TemporaryDirectory pki;
    kelvane::testing::MakeTestCertificates(pki.Path());
    // A broker started as root may read them as user mosquitto.
    ::chmod(pki.Path().c_str(), 0755);
    ::chmod(pki.File("server.key").c_str(), 0644);
    MosquittoBroker broker("cafile " + pki.File("ca.pem") + "\ncertfile " + pki.File("server.pem") +
                           "\nkeyfile " + pki.File("server.key") + "\n");
    csc_logging::LogCapture log;
    RecordingPubSubCallback trusting;
    RecordingPubSubCallback distrusting;
    StartedConnector sut(broker.Port(), "kv-tls", "tls_ca_file=" + pki.File("ca.pem") + "\n");
    StartedConnector wrongCa(broker.Port(), "kv-tls-wrong",
                             "tls_ca_file=" + pki.File("untrusted-ca.pem") + "\n");
    StartedConnector missingCa(broker.Port(), "kv-tls-missing",
                               "tls_ca_file=" + pki.File("missing.crt") + "\n");

    ASSERT_EQ(sut->PubSubConnect(&trusting), pubsub_status::kInProgress);
    ASSERT_EQ(wrongCa->PubSubConnect(&distrusting), pubsub_status::kInProgress);
    EXPECT_EQ(missingCa->PubSubConnect(&distrusting), pubsub_status::kFailed);

    EXPECT_EQ(trusting.WaitForStates(2), (std::vector<int>{1, 0}));
    ASSERT_EQ(sut->PubSubSubscribe("push/tls", true).status, pubsub_status::kOk);
    EXPECT_EQ(trusting.WaitFor(Kind::kSubscribeAck, 1).size(), 1U);
    EXPECT_TRUE(log.WaitFor("cannot connect to MQTT broker", kTimeout));
    EXPECT_EQ(distrusting.WaitForStates(), std::vector<int>{1});
    EXPECT_TRUE(log.Contains(csc_logging::LogLevel::kError, "MQTT TLS set-up failed"));
}

}  // namespace
}  // namespace vi_connector
