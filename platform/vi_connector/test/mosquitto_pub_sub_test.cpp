#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/child_process.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/temporary_directory.hpp"
#include "test_support/thread_state.hpp"
#include "vi_connector/vi_connector.hpp"

// The pub/sub channel against a broker of the test's own. Broker restarts, denied
// subscriptions, oversized pushes and certificate checks are driven through the
// client's MQTT connection and the end-to-end tests.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::MosquittoBroker;
using kelvane::testing::TemporaryDirectory;
using Bytes = std::vector<std::uint8_t>;

constexpr auto kTimeout = 10s;

enum class Kind { kState, kMessage, kPublishAck, kSubscribeAck, kFailed };

struct Notification {
    Kind kind;
    std::string topic;
    int value;  // state or subscription status
    std::uint32_t id = 0;
    Bytes payload = {};
};

class RecordingPubSubCallback : public VIPubSubCallbackIf {
public:
    void VIPubSubConnectionState(PubSubConnectionState state) override {
        Add({Kind::kState, {}, state});
    }
    void VIPublishReceived(const std::string& topic, const Bytes& payload,
                           std::uint32_t messageId) override {
        if (onMessage) {
            onMessage();
        }
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
    void VIPublishFailed(const std::string& topic, std::uint16_t id) override {
        Add({Kind::kFailed, topic, 0, id});
    }
    void VISubscribeFailed(const std::string& topic, std::uint16_t id) override {
        Add({Kind::kFailed, topic, 0, id});
    }
    void VIUnsubscribeFailed(const std::string&, std::uint16_t) override {}

    /// The notifications of `kind` so far, once there are `count` of them.
    std::vector<Notification> WaitFor(Kind kind, std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        std::vector<Notification> found;
        changed_.wait_for(lock, kTimeout, [&] {
            found.clear();
            for (const auto& notification : notifications_) {
                if (notification.kind == kind) {
                    found.push_back(notification);
                }
            }
            return found.size() >= count;
        });
        return found;
    }
    std::vector<int> States(std::size_t count = 0) {
        std::vector<int> states;
        for (const auto& notification : WaitFor(Kind::kState, count)) {
            states.push_back(notification.value);
        }
        return states;
    }

    std::function<void()> onMessage;

private:
    void Add(Notification notification) {
        std::lock_guard<std::mutex> lock(mutex_);
        notifications_.push_back(std::move(notification));
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Notification> notifications_;
};

// A connector configured for `port`, started and ready.
class StartedConnector {
public:
    StartedConnector(std::uint16_t port, const std::string& extraMqtt = "") {
        const auto path = directory_.Write(
            "vi.ini",
            "[mqtt]\nhost=127.0.0.1\nport=" + std::to_string(port) +
                "\nkeep_alive=5\nreconnect_delay_min_ms=50\nreconnect_delay_max_ms=400\n" +
                extraMqtt + "[transaction t]\nurl=http://127.0.0.1:1/\ntoken=x\n");
        connector_ = std::make_unique<VIConnector>(nullptr, nullptr, path);
        connector_->Start();
        kelvane::testing::WaitUntil(
            [&] { return connector_->GetSessionStatus() == SessionStatus::kOk; }, kTimeout);
    }
    VIConnector* operator->() { return connector_.get(); }
    void Destroy() { connector_.reset(); }

    /// Connects `callback`'s session and, given a topic, subscribes to it.
    bool Connected(RecordingPubSubCallback& callback, const std::string& topic = "") {
        if (connector_->PubSubConnect(&callback) != pubsub_status::kInProgress ||
            callback.States(2).size() != 2U) {
            return false;
        }
        return topic.empty() ||
               (connector_->PubSubSubscribe(topic, true).status == pubsub_status::kOk &&
                callback.WaitFor(Kind::kSubscribeAck, 1).size() == 1U);
    }

private:
    TemporaryDirectory directory_;
    std::unique_ptr<VIConnector> connector_;
};

// Publishes `payload` (read from a file, so any bytes) as another client would.
void PublishFromOtherClient(const MosquittoBroker& broker, const std::string& topic,
                            const std::string& payload) {
    TemporaryDirectory directory;
    kelvane::testing::ChildProcess publisher(
        {{"mosquitto_pub", "-h", "127.0.0.1", "-p", std::to_string(broker.Port()), "-q", "1", "-t",
          topic, "-f", directory.Write("payload.bin", payload)},
         {},
         directory.File("out.txt")});
    ASSERT_EQ(publisher.WaitForExit(kTimeout), std::optional<int>(0));
}

TEST(MosquittoPubSubTest, PassesBinaryMessagesBothWaysUnchangedAndFallsSilentWhenDestroyed) {
    MosquittoBroker broker;
    csc_logging::LogCapture log;
    RecordingPubSubCallback callback;
    StartedConnector sut(broker.Port());

    EXPECT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    EXPECT_EQ(callback.States(2), (std::vector<int>{1, 0}));
    EXPECT_EQ(sut->PubSubConnect(&callback), pubsub_status::kAlreadyOrQueued);
    const auto subscribed = sut->PubSubSubscribe("push/ecu", true);
    ASSERT_EQ(subscribed.status, pubsub_status::kOk);
    const auto acks = callback.WaitFor(Kind::kSubscribeAck, 1);
    ASSERT_EQ(acks.size(), 1U);
    EXPECT_EQ(acks[0].topic, "push/ecu");
    EXPECT_EQ(acks[0].value, VIPubSubCallbackIf::kGranted);
    EXPECT_EQ(acks[0].id, subscribed.requestId);
    EXPECT_EQ(sut->PubSubSubscribe("bad/#/filter", true).status, pubsub_status::kFailed);
    EXPECT_TRUE(log.Contains("not a valid MQTT topic filter"));

    const std::string payload("\x00\x01zelk\x00\xff", 8);
    PublishFromOtherClient(broker, "push/ecu", payload);
    ASSERT_EQ(callback.WaitFor(Kind::kMessage, 1).size(), 1U);
    // Several reads long, yet under the 64 KiB the connector accepts from a broker.
    Bytes large(60000);
    std::iota(large.begin(), large.end(), std::uint8_t{7});
    EXPECT_EQ(sut->PubSubPublish("push/ecu", large, 1, 60, PublishPayloadFormat::kUnspecified,
                                 "application/octet-stream", false),
              pubsub_status::kOk);
    EXPECT_NE(
        sut->PubSubPublish("push/ecu", large, 3, 0, PublishPayloadFormat::kUnspecified, "", false),
        pubsub_status::kOk);

    EXPECT_EQ(callback.WaitFor(Kind::kPublishAck, 1).size(), 1U);
    const auto messages = callback.WaitFor(Kind::kMessage, 2);
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].topic, "push/ecu");
    EXPECT_EQ(messages[0].payload, Bytes(payload.begin(), payload.end()));
    EXPECT_EQ(messages[1].payload, large);
    // The owner of the callback may be gone before the connector is destroyed.
    sut.Destroy();
    EXPECT_EQ(callback.States(), (std::vector<int>{1, 0}));
    EXPECT_TRUE(callback.WaitFor(Kind::kFailed, 0).empty());
}

TEST(MosquittoPubSubTest, SubscriptionWhileTheBrokerIsDownIsQueuedAndSentOnceItIsUp) {
    MosquittoBroker broker;
    broker.Stop();
    csc_logging::LogCapture log;
    RecordingPubSubCallback callback;
    StartedConnector sut(broker.Port());

    ASSERT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    EXPECT_EQ(sut->PubSubSubscribe("push/queued", true).status, pubsub_status::kAlreadyOrQueued);
    // Several attempts fail before the broker comes: one warning, not one per attempt.
    ASSERT_TRUE(log.WaitFor("still unreachable", kTimeout, 2));
    broker.Start();

    EXPECT_EQ(callback.States(2), (std::vector<int>{1, 0}));
    const auto acks = callback.WaitFor(Kind::kSubscribeAck, 1);
    ASSERT_EQ(acks.size(), 1U);
    EXPECT_EQ(acks[0].topic, "push/queued");
    PublishFromOtherClient(broker, "push/queued", "after the outage");
    EXPECT_EQ(callback.WaitFor(Kind::kMessage, 1).size(), 1U);
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kWarning, "cannot connect to MQTT broker"), 1U);
}

TEST(MosquittoPubSubTest, ConnectBeforeStartOrWithoutItsCaFileFailsWithAClearLine) {
    csc_logging::LogCapture log;
    RecordingPubSubCallback callback;
    VIConnector notStarted(nullptr, &callback, "/nonexistent/vi.ini");
    StartedConnector missingCa(1, "tls_ca_file=/nonexistent/ca.pem\n");

    EXPECT_EQ(notStarted.PubSubConnect(&callback), pubsub_status::kFailed);
    EXPECT_EQ(missingCa->PubSubConnect(&callback), pubsub_status::kFailed);

    EXPECT_TRUE(
        log.Contains(csc_logging::LogLevel::kError, "PubSubConnect before a successful Start()"));
    EXPECT_TRUE(log.Contains(csc_logging::LogLevel::kError, "MQTT TLS set-up failed"));
    EXPECT_TRUE(callback.States().empty());
}

TEST(MosquittoPubSubTest, DisconnectWaitsForTheNotificationUnderWayAndNothingFollowsIt) {
    MosquittoBroker broker;
    // Declared first: the callbacks outlive the connector that calls them.
    std::atomic<bool> inside{false}, open{false}, left{false};
    RecordingPubSubCallback disconnected;
    disconnected.onMessage = [&] {
        inside = true;
        kelvane::testing::WaitUntil([&] { return open.load(); }, kTimeout, 1ms);
        left = true;
    };
    RecordingPubSubCallback next;
    StartedConnector sut(broker.Port());
    ASSERT_TRUE(sut.Connected(disconnected, "push/#"));
    PublishFromOtherClient(broker, "push/1", "first");
    ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return inside.load(); }, kTimeout));

    // The callback's owner ends delivery while the message is being handed over.
    std::atomic<pid_t> ownerThread{0};
    std::atomic<bool> returned{false};
    bool leftBeforeReturn = false;
    std::thread owner([&] {
        ownerThread = kelvane::testing::CurrentThreadId();
        sut->PubSubDisconnect();
        leftBeforeReturn = left;
        returned = true;
    });
    const bool settled = kelvane::testing::WaitUntil(
        [&] {
            return returned || (ownerThread != 0 && kelvane::testing::ThreadIsBlocked(ownerThread));
        },
        kTimeout, 1ms);
    const bool returnedWhileInside = returned;
    open = true;
    owner.join();

    EXPECT_TRUE(settled);
    EXPECT_FALSE(returnedWhileInside);
    EXPECT_TRUE(leftBeforeReturn);
    EXPECT_EQ(disconnected.States(), (std::vector<int>{1, 0, 1}));
    EXPECT_EQ(sut->PubSubPublish("a/b", {1}, 0, 0, PublishPayloadFormat::kUnspecified, "", false),
              pubsub_status::kFailed);
    // The same connector connects again: a new callback gets what follows, the old one nothing.
    ASSERT_TRUE(sut.Connected(next, "push/#"));
    PublishFromOtherClient(broker, "push/2", "second");
    const auto messages = next.WaitFor(Kind::kMessage, 1);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].topic, "push/2");
    EXPECT_EQ(disconnected.WaitFor(Kind::kMessage, 0).size(), 1U);
    EXPECT_EQ(disconnected.States().size(), 3U);
}

}  // namespace
}  // namespace vi_connector
