#include "csa_common/mqtt_connection.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "csc_logging/log_capture.hpp"

namespace csa_common {
namespace {

using csc_logging::LogCapture;
using csc_logging::LogLevel;
using testing::_;
using testing::Return;
using vi_connector::PublishPayloadFormat;
using vi_connector::VIPubSubCallbackIf;

class MockVIConnector : public vi_connector::VIConnector {
public:
    MockVIConnector() : VIConnector(NoConfiguration{}) {}
    MOCK_METHOD(std::uint32_t, PubSubConnect, (VIPubSubCallbackIf*), (override));
    MOCK_METHOD(std::uint32_t, PubSubDisconnect, (), (override));
    MOCK_METHOD(vi_connector::SubscribeResult, PubSubSubscribe, (const std::string&, bool),
                (override));
    MOCK_METHOD(std::uint32_t, PubSubPublish,
                (const std::string&, const std::vector<std::uint8_t>&, unsigned int, unsigned int,
                 PublishPayloadFormat, const std::string&, bool),
                (override));
};

class MockOwner : public MqttConnectionCbIf {
public:
    MOCK_METHOD(void, MQTTMessageReceivedCb, (), (override));
    MOCK_METHOD(void, MQTTResubscribeCb, (), (override));
    MOCK_METHOD(void, MQTTSubscribeFailedCb, (), (override));
};

class MqttConnectionTest : public testing::Test {
protected:
    std::shared_ptr<testing::StrictMock<MockVIConnector>> connector_ =
        std::make_shared<testing::StrictMock<MockVIConnector>>();
    testing::StrictMock<MockOwner> owner_;
    MqttConnection sut{connector_, &owner_};
    LogCapture log_;
};

std::vector<std::uint8_t> Bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST(MqttConnectionLifetimeTest, DestructionLeavesTheSharedConnectorAlone) {
    // The owner disconnects first; the strict mock fails on any call here.
    auto connector = std::make_shared<testing::StrictMock<MockVIConnector>>();
    auto sut = std::make_unique<MqttConnection>(connector, nullptr);

    sut.reset();
}

TEST_F(MqttConnectionTest, ConnectAcceptsStatus013AndSubscribeOnly03) {
    const std::string topic = "TTVI-Kelvane-C003.CTzelkDlcInitiation";
    const struct {
        std::uint32_t status;
        bool connectFailed;
        bool subscribeFailed;
    } cases[] = {{0, false, false}, {1, false, true}, {2, true, true}, {3, false, false}};
    for (const auto& c : cases) {
        const std::string status = std::to_string(c.status);
        SCOPED_TRACE(status);
        log_.Clear();
        EXPECT_CALL(*connector_, PubSubConnect(static_cast<VIPubSubCallbackIf*>(&sut)))
            .WillOnce(Return(c.status));
        EXPECT_CALL(*connector_, PubSubSubscribe(topic, true))
            .WillOnce(Return(vi_connector::SubscribeResult{c.status, 513}));

        EXPECT_EQ(sut.Connect(), c.connectFailed);
        EXPECT_EQ(sut.Subscribe(topic), c.subscribeFailed);

        EXPECT_EQ(
            c.connectFailed
                ? log_.Count(LogLevel::kError,
                             "MqttConnection: Failed to connect to MQTT-CDP, result=" + status)
                : log_.Count(LogLevel::kInfo,
                             "MqttConnection: Connected to MQTT-CDP, result=" + status),
            1U);
        EXPECT_EQ(c.subscribeFailed
                      ? log_.Count(LogLevel::kError,
                                   "MqttConnection: Failed to subscribe to topic " + topic +
                                       ", status=" + status + ", Request ID:513")
                      : log_.Count(LogLevel::kInfo, "MqttConnection: Subscribed to topic " + topic +
                                                        ", status=" + status),
                  1U);
    }
}

// ---- Received messages ----------------------------------------------------------------

TEST_F(MqttConnectionTest, MessagesComeOutInArrivalOrderWithEveryByte) {
    const std::string binary("\x00\x01zelk\x00\xff\x00", 9);
    EXPECT_CALL(owner_, MQTTMessageReceivedCb()).Times(3);
    EXPECT_FALSE(sut.CheckReceivedUpdate());

    sut.VIPublishReceived("topic/a", Bytes(binary), 7);
    sut.VIPublishReceived("topic/b", Bytes("second"), 8);
    sut.VIPublishReceived("topic/c", {}, 4294967295U);

    for (const std::string& expected : {binary, std::string("second"), std::string()}) {
        ASSERT_TRUE(sut.CheckReceivedUpdate());
        const std::string message = sut.GetReceivedMessage();
        EXPECT_EQ(message.size(), expected.size());
        EXPECT_EQ(message, expected);
    }
    EXPECT_FALSE(sut.CheckReceivedUpdate());
    EXPECT_TRUE(log_.Contains(LogLevel::kDebug,
                              "MqttConnection: Message received for topic topic/b, "
                              "message:second, messageId: 8"));
    EXPECT_TRUE(log_.Contains("messageId: 4294967295"));
}

TEST_F(MqttConnectionTest, OwnerMayTakeTheMessageFromInsideTheNotification) {
    std::string taken;
    EXPECT_CALL(owner_, MQTTMessageReceivedCb()).WillOnce([&] {
        ASSERT_TRUE(sut.CheckReceivedUpdate());
        taken = sut.GetReceivedMessage();
    });

    sut.VIPublishReceived("t", Bytes("push"), 1);

    EXPECT_EQ(taken, "push");
    EXPECT_FALSE(sut.CheckReceivedUpdate());
}

TEST_F(MqttConnectionTest, TakingFromAnEmptyStoreAborts) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(sut.GetReceivedMessage(), "");
}

// ---- Connection state ------------------------------------------------------------------

struct StateCase {
    std::vector<std::int32_t> states;
    int resubscriptions;
};

class MqttConnectionStateTest : public MqttConnectionTest,
                                public testing::WithParamInterface<StateCase> {};

TEST_P(MqttConnectionStateTest, OnlyOneToZeroAsksForResubscription) {
    const auto& [states, resubscriptions] = GetParam();
    EXPECT_CALL(owner_, MQTTResubscribeCb()).Times(resubscriptions);

    for (const auto state : states) {
        sut.VIPubSubConnectionState(static_cast<VIPubSubCallbackIf::PubSubConnectionState>(state));
    }

    std::int32_t previous = 0;
    for (const auto state : states) {
        EXPECT_TRUE(log_.Contains(LogLevel::kDebug,
                                  "MqttConnection: Connection state has changed from " +
                                      std::to_string(previous) + " to " + std::to_string(state)));
        previous = state;
    }
}

INSTANTIATE_TEST_SUITE_P(Sequences, MqttConnectionStateTest,
                         testing::Values(StateCase{{1, 0}, 1}, StateCase{{0}, 0},
                                         StateCase{{1, 2, 0}, 0}, StateCase{{1, 0, 1, 0}, 2},
                                         StateCase{{0, 0, 1, 1, 0, 0}, 1}, StateCase{{-1, 0}, 0}));

// ---- Acknowledgements and failures -----------------------------------------------------

TEST_F(MqttConnectionTest, OnlyARefusedSubscriptionTellsTheOwnerToBackOff) {
    EXPECT_CALL(owner_, MQTTSubscribeFailedCb()).Times(1);

    sut.VISubscribeAcknowledgeReceived("t", VIPubSubCallbackIf::kGranted, 1);
    sut.VISubscribeAcknowledgeReceived("t", VIPubSubCallbackIf::kRefused, 65535);
    sut.VISubscribeAcknowledgeReceived("t", static_cast<VIPubSubCallbackIf::SubscriptionStatus>(2),
                                       3);

    EXPECT_TRUE(log_.Contains(LogLevel::kDebug,
                              "MqttConnection: Subscribe acknowledged to topic t, status 1 "
                              "Request ID:65535"));
    EXPECT_TRUE(log_.Contains("status 0 Request ID:1"));
    EXPECT_TRUE(log_.Contains("status 2 Request ID:3"));
}

TEST_F(MqttConnectionTest, FailedSubscriptionRequestAsksForAnotherTryAndOtherFailuresOnlyLog) {
    EXPECT_CALL(owner_, MQTTResubscribeCb()).Times(1);

    sut.VISubscribeFailed("push", 9);
    sut.VIPublishFailed("out", 10);
    sut.VIUnsubscribeFailed("old", 11);
    sut.VIPublishAcknowledgeReceived("out", 12);
    sut.VIUnsubscribeAcknowledgeReceived("old", 13);
    sut.VIConnectorStatus(vi_connector::SessionStatus::kRejected);

    EXPECT_TRUE(log_.Contains(LogLevel::kError,
                              "MqttConnection: Subscribe to topic push failed, Request ID:9"));
    EXPECT_TRUE(log_.Contains(LogLevel::kError,
                              "MqttConnection: Publish to topic out failed, Request ID:10"));
    EXPECT_TRUE(log_.Contains(LogLevel::kError,
                              "MqttConnection: Unsubscribe to topic old failed, Request ID:11"));
    EXPECT_TRUE(log_.Contains(LogLevel::kDebug,
                              "MqttConnection: Publish acknowledged to topic out, Request ID:12"));
    EXPECT_TRUE(log_.Contains(
        LogLevel::kDebug, "MqttConnection: Unsubscribe acknowledged to topic old, Request ID:13"));
    EXPECT_TRUE(
        log_.Contains(LogLevel::kDebug, "MqttConnection: VI-Connector status has changed to 3"));
}

TEST(MqttConnectionWithoutOwnerTest, EveryNotificationStillLogsAndStores) {
    auto connector = std::make_shared<testing::StrictMock<MockVIConnector>>();
    LogCapture log;
    MqttConnection sut(connector, nullptr);

    sut.VIPubSubConnectionState(VIPubSubCallbackIf::kDisconnected);
    sut.VIPubSubConnectionState(VIPubSubCallbackIf::kConnected);
    sut.VIPublishReceived("t", Bytes("kept"), 1);
    sut.VISubscribeAcknowledgeReceived("t", VIPubSubCallbackIf::kRefused, 2);
    sut.VISubscribeFailed("t", 3);

    EXPECT_EQ(log.Records().size(), 5U);
    ASSERT_TRUE(sut.CheckReceivedUpdate());
    EXPECT_EQ(sut.GetReceivedMessage(), "kept");
}

// ---- Publish and Disconnect pass through -------------------------------------------------

TEST_F(MqttConnectionTest, PublishHandsTheBytesOverInTheConnectorsArgumentOrder) {
    const std::string message("a\0b", 3);
    EXPECT_CALL(*connector_, PubSubPublish("out/topic", Bytes(message), 1U, 7U,
                                           PublishPayloadFormat::kUnspecified, "text/plain", true))
        .WillOnce(Return(0U));
    EXPECT_CALL(*connector_, PubSubPublish("out/topic", _, 0U, 0U, _, "", false))
        .WillOnce(Return(2U));

    EXPECT_FALSE(sut.Publish("out/topic", message, true, 1, 7, "text/plain"));
    EXPECT_TRUE(sut.Publish("out/topic", "x", false, 0, 0, ""));
    EXPECT_TRUE(log_.Records().empty());
}

TEST_F(MqttConnectionTest, DisconnectReturnsTheConnectorsResultUnchanged) {
    EXPECT_CALL(*connector_, PubSubDisconnect()).WillOnce(Return(0U)).WillOnce(Return(77U));

    EXPECT_EQ(sut.Disconnect(), 0U);
    EXPECT_EQ(sut.Disconnect(), 77U);
}

}  // namespace
}  // namespace csa_common
