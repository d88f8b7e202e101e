#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/child_process.hpp"
#include "test_support/loopback.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/scripted_mqtt_broker.hpp"
#include "test_support/temporary_directory.hpp"
#include "test_support/test_certificates.hpp"
#include "test_support/thread_state.hpp"
#include "vi_connector/vi_connector.hpp"

// The pub/sub channel against a broker of the test's own. Broker restarts, denied
// subscriptions, pushes from other clients, oversized pushes and certificate checks are
// driven through the client's MQTT connection and the end-to-end tests.
namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::MosquittoBroker;
using kelvane::testing::ScriptedMqttBroker;
using Bytes = std::vector<std::uint8_t>;
using Events = std::vector<std::string>;

constexpr auto kTimeout = 10s;

// Every notification as one line, in arrival order; a message line ends in its payload.
class RecordingPubSubCallback : public VIPubSubCallbackIf {
public:
    void VIPubSubConnectionState(PubSubConnectionState state) override {
        Add("state " + std::to_string(state));
    }
    void VIPublishReceived(const std::string& topic, const Bytes& payload, std::uint32_t) override {
        if (onMessage) {
            onMessage();
        }
        Add("message " + topic + " " + std::string(payload.begin(), payload.end()));
    }
    void VIPublishAcknowledgeReceived(const std::string& topic, std::uint16_t) override {
        Add("puback " + topic);
    }
    void VISubscribeAcknowledgeReceived(const std::string& topic, SubscriptionStatus status,
                                        std::uint16_t id) override {
        Add("suback " + topic + " " + std::to_string(status) + " " + std::to_string(id));
    }
    void VIUnsubscribeAcknowledgeReceived(const std::string&, std::uint16_t) override {}
    void VIPublishFailed(const std::string&, std::uint16_t) override {}
    void VISubscribeFailed(const std::string& topic, std::uint16_t) override {
        Add("failed " + topic);
    }
    void VIUnsubscribeFailed(const std::string&, std::uint16_t) override {}

    /// The events starting with `prefix` so far, once there are `count` of them.
    Events WaitFor(const std::string& prefix, std::size_t count = 0) {
        Events found;
        kelvane::testing::WaitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(mutex_);
                found.clear();
                std::copy_if(events_.begin(), events_.end(), std::back_inserter(found),
                             [&](const std::string& event) { return event.rfind(prefix, 0) == 0; });
                return found.size() >= count;
            },
            kTimeout);
        return found;
    }

    std::function<void()> onMessage;

private:
    void Add(std::string event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
    }

    std::mutex mutex_;
    Events events_;
};

// A connector configured for `port`, started.
std::unique_ptr<VIConnector> StartedConnector(std::uint16_t port, const std::string& extraMqtt = "",
                                              const std::string& clientId = "vehicle") {
    kelvane::testing::TemporaryDirectory directory;
    const std::string mqtt =
        "port=" + std::to_string(port) + "\nclient_id=" + clientId +
        "\nkeep_alive=5\nreconnect_delay_min_ms=50\nreconnect_delay_max_ms=400\n";
    auto connector = std::make_unique<VIConnector>(
        nullptr, nullptr,
        directory.Write("vi.ini", "[mqtt]\n" + mqtt + extraMqtt +
                                      "[transaction t]\nurl=http://127.0.0.1:1/\ntoken=x\n"));
    connector->Start();
    connector->Stop();  // joins the start, keeps the configuration
    return connector;
}

// The callback outlives the connector that calls it.
class MosquittoPubSubTest : public ::testing::Test {
protected:
    csc_logging::LogCapture log;
    RecordingPubSubCallback callback;
};

TEST_F(MosquittoPubSubTest, LateBrokerGetsTheQueuedSubscriptionAndBinaryMessagesPassBothWays) {
    MosquittoBroker broker;
    broker.Stop();
    auto sut = StartedConnector(broker.Port());
    VIConnector notStarted(nullptr, &callback, "/nonexistent/vi.ini");
    auto missingCa = StartedConnector(broker.Port(), "tls_ca_file=/nonexistent/ca.pem\n");

    EXPECT_EQ(notStarted.PubSubConnect(&callback), pubsub_status::kFailed);
    EXPECT_EQ(missingCa->PubSubConnect(&callback), pubsub_status::kFailed);
    ASSERT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    EXPECT_EQ(sut->PubSubSubscribe("push/queued", true).status, pubsub_status::kAlreadyOrQueued);
    // Several attempts fail before the broker comes: one warning, not one per attempt.
    ASSERT_TRUE(log.WaitFor("still unreachable", kTimeout, 2));
    broker.Start();
    EXPECT_EQ(callback.WaitFor("state", 2), (Events{"state 1", "state 0"}));
    const auto subscribed = sut->PubSubSubscribe("push/ecu", true);

    const auto acks = callback.WaitFor("suback", 2);
    ASSERT_EQ(acks.size(), 2U);
    EXPECT_EQ(acks[0].rfind("suback push/queued 0 ", 0), 0U);
    EXPECT_EQ(acks[1], "suback push/ecu 0 " + std::to_string(subscribed.requestId));
    // Every byte value, several reads long, yet under the 64 KiB accepted from a broker.
    Bytes large(60000);
    std::iota(large.begin(), large.end(), std::uint8_t{7});
    EXPECT_EQ(sut->PubSubPublish("push/ecu", large, 1, 60, PublishPayloadFormat::kUnspecified,
                                 "application/octet-stream", false),
              pubsub_status::kOk);
    EXPECT_EQ(callback.WaitFor("message", 1),
              Events{"message push/ecu " + std::string(large.begin(), large.end())});
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kWarning, "cannot connect to MQTT broker"), 1U);
    EXPECT_TRUE(
        log.Contains(csc_logging::LogLevel::kError, "PubSubConnect before a successful Start()"));
    EXPECT_TRUE(log.Contains(csc_logging::LogLevel::kError, "MQTT TLS set-up failed"));
}

TEST_F(MosquittoPubSubTest, DisconnectWaitsForTheNotificationUnderWayAndNothingFollowsIt) {
    MosquittoBroker broker;
    std::atomic<bool> inside{false}, open{false}, left{false};
    callback.onMessage = [&] {
        inside = true;
        kelvane::testing::WaitUntil([&] { return open.load(); }, kTimeout, 1ms);
        left = true;
    };
    auto sut = StartedConnector(broker.Port());
    ASSERT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    sut->PubSubSubscribe("push/#", true);
    ASSERT_EQ(callback.WaitFor("suback", 1).size(), 1U);
    sut->PubSubPublish("push/1", {'1'}, 0, 0, PublishPayloadFormat::kUnspecified, "", false);
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
    // The end it asked for is not reported to it.
    EXPECT_EQ(callback.WaitFor("state"), (Events{"state 1", "state 0"}));
}

TEST_F(MosquittoPubSubTest, ABrokerThatAcceptsAndDropsSeesTwelveAttemptsAMinuteAndThreeWarnings) {
    ScriptedMqttBroker::Options acceptAndDrop;
    acceptAndDrop.closeAfterConnack = true;
    ScriptedMqttBroker broker(acceptAndDrop);
    auto sut =
        StartedConnector(broker.Port(), "reconnect_delay_min_ms=10\nreconnect_delay_max_ms=40\n");

    ASSERT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    ASSERT_TRUE(kelvane::testing::WaitUntil([&] { return broker.Connections() >= 12; }, kTimeout));
    // Many times the back-off's ceiling: a thirteenth attempt within the minute would come now.
    std::this_thread::sleep_for(500ms);

    EXPECT_EQ(broker.Connections(), 12U);
    EXPECT_LE(log.Count(csc_logging::LogLevel::kWarning, ""), 3U) << log.Dump();
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kInfo, "MQTT connected"), 2U) << log.Dump();
}

TEST_F(MosquittoPubSubTest, StoppingBeforeTheBrokerWasReachedSaysNothingMore) {
    auto sut = StartedConnector(kelvane::testing::FreeTcpPort(),
                                "reconnect_delay_min_ms=600000\nreconnect_delay_max_ms=600000\n");
    ASSERT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
    sut->PubSubSubscribe("push/ecu", true);
    ASSERT_TRUE(log.WaitFor("cannot connect to MQTT broker", kTimeout));
    const auto lines = log.Texts().size();

    EXPECT_EQ(sut->PubSubDisconnect(), pubsub_status::kOk);
    sut.reset();

    EXPECT_EQ(log.Texts().size(), lines) << log.Dump();
    EXPECT_EQ(callback.WaitFor(""), Events{"state 1"});  // no failed subscription
}

// The same story in both protocol versions: a push is a live event that must not be lost.
class PersistentSessionTest : public ::testing::TestWithParam<std::string> {};

TEST_P(PersistentSessionTest, PushesSentWhileAwayArriveOnceAndStoredOnesNever) {
    MosquittoBroker broker;
    RecordingPubSubCallback publisherEvents, first, second;
    auto publisher = StartedConnector(broker.Port(), "", "publisher");
    ASSERT_EQ(publisher->PubSubConnect(&publisherEvents), pubsub_status::kInProgress);
    ASSERT_EQ(publisherEvents.WaitFor("state", 2).size(), 2U);
    const auto publish = [&](const std::string& text, bool retain) {
        const auto acknowledged = publisherEvents.WaitFor("puback").size() + 1;
        publisher->PubSubPublish("push/ecu", Bytes(text.begin(), text.end()), 1, 0,
                                 PublishPayloadFormat::kUnspecified, "", retain);
        ASSERT_EQ(publisherEvents.WaitFor("puback", acknowledged).size(), acknowledged);
    };
    const std::string protocol = "protocol=" + GetParam() + "\n";
    csc_logging::LogCapture log;

    publish("stored", true);
    auto sut = StartedConnector(broker.Port(), protocol);
    ASSERT_EQ(sut->PubSubConnect(&first), pubsub_status::kInProgress);
    sut->PubSubSubscribe("push/ecu", true);
    ASSERT_EQ(first.WaitFor("suback", 1).size(), 1U);
    sut.reset();  // the vehicle is switched off
    publish("while away", false);
    sut = StartedConnector(broker.Port(), protocol);
    ASSERT_EQ(sut->PubSubConnect(&second), pubsub_status::kInProgress);
    ASSERT_EQ(second.WaitFor("message", 1).size(), 1U);
    sut->PubSubSubscribe("push/ecu", true);  // as the client does after every connection
    ASSERT_EQ(second.WaitFor("suback", 1).size(), 1U);
    publish("live again", false);

    EXPECT_EQ(second.WaitFor("message", 2),
              (Events{"message push/ecu while away", "message push/ecu live again"}));
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kInfo, "(MQTT " + GetParam() + ")"), 2U)
        << log.Dump();
}

INSTANTIATE_TEST_SUITE_P(Protocols, PersistentSessionTest, ::testing::Values("5", "3.1.1"),
                         [](const auto& row) { return row.param == "5" ? "V5" : "V311"; });

// Brokers mosquitto cannot play, scripted byte by byte.
TEST(ScriptedBrokerTest, PushesArriveAsTheBrokerAllows) {
    using csc_logging::LogLevel;
    // A message far over the bound (queued first, with QoS 1) and a push behind it, over TLS:
    // the relay reads plain and TLS alike, and the packet gate has its own tests.
    const std::string oversized =
        ScriptedMqttBroker::Publish("push/ecu", std::string(1 << 20, 'x'), 1, 7, true);
    const struct {
        bool onlyV311;
        std::string afterConnack;  // a DISCONNECT there ends each connection
        bool tls;
        Events messages;  // what the callback sees
        LogLevel level;
        std::string logged;     // a line that must appear
        char subscribeOptions;  // retained messages are never sent for MQTT 5 (0: none)
        Events pubacks;         // what the broker receives, in order
    } cases[] = {
        {true, ScriptedMqttBroker::Publish("push/ecu", "go", 1, 7, false), false,
         Events{"message push/ecu go"}, LogLevel::kInfo,
         "does not speak MQTT 5; using MQTT 3.1.1 until restart", '\x01',
         Events{std::string("\x40\x02\x00\x07", 4)}},
        // The oversized message is refused (0x83: not willing to accept), the next acknowledged.
        {false, oversized + ScriptedMqttBroker::Publish("push/ecu", "next", 1, 8, true), true,
         Events{"message push/ecu next"}, LogLevel::kWarning,
         "dropped a " + std::to_string(oversized.size()) + " byte MQTT message on 'push/ecu'",
         '\x21',
         Events{std::string("\x40\x03\x00\x07\x83", 5), std::string("\x40\x02\x00\x08", 4)}},
        {false, ScriptedMqttBroker::Disconnect(0x8e, "another\nclient"), false, Events{},
         LogLevel::kError,
         "gave our session to another client with the client id 'vehicle' "
         "(DISCONNECT 0x8E: another?client): the id is likely used twice",
         '\0', Events{}},
        {false, ScriptedMqttBroker::Disconnect(0x8b, "maintenance"), false, Events{},
         LogLevel::kWarning,
         "lost: the broker sent DISCONNECT 0x8B (Server shutting down): maintenance", '\0',
         Events{}},
    };
    kelvane::testing::TemporaryDirectory pki;
    kelvane::testing::MakeTestCertificates(pki.Path());
    for (const auto& row : cases) {
        SCOPED_TRACE(row.logged);
        ScriptedMqttBroker::Options options;
        options.onlyV311 = row.onlyV311;
        options.afterConnack = row.afterConnack;
        options.closeAfterConnack = row.afterConnack.rfind('\xe0', 0) == 0;
        options.certFile = row.tls ? pki.File("server.pem") : "";
        options.keyFile = row.tls ? pki.File("server.key") : "";
        ScriptedMqttBroker broker(options);
        csc_logging::LogCapture log;
        RecordingPubSubCallback callback;
        auto sut = StartedConnector(broker.Port(),
                                    row.tls ? "tls_ca_file=" + pki.File("ca.pem") + "\n" : "");

        ASSERT_EQ(sut->PubSubConnect(&callback), pubsub_status::kInProgress);
        sut->PubSubSubscribe("push/ecu", true);

        EXPECT_EQ(callback.WaitFor("message", row.messages.size()), row.messages);
        EXPECT_TRUE(log.WaitFor(row.logged, kTimeout) && log.Contains(row.level, row.logged))
            << log.Dump();
        for (const auto& subscribe :
             broker.WaitForPackets(8, row.subscribeOptions ? 1 : 0, kTimeout)) {
            EXPECT_EQ(subscribe.bytes.back(), row.subscribeOptions);
        }
        Events pubacks;
        for (const auto& puback : broker.WaitForPackets(4, row.pubacks.size(), kTimeout)) {
            pubacks.push_back(puback.bytes);
        }
        EXPECT_EQ(pubacks, row.pubacks);
    }
}

}  // namespace
}  // namespace vi_connector
