#include "csa_common/mqtt_connection.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "csc_logging/log_capture.hpp"

namespace csa_common {
namespace {

using csc_logging::LogLevel;
using testing::Return;
using testing::StrictMock;
using vi_connector::VIPubSubCallbackIf;

class MockVIConnector : public vi_connector::VIConnector {
public:
    MockVIConnector() : VIConnector(NoConfiguration{}) {}
    MOCK_METHOD(std::uint32_t, PubSubConnect, (VIPubSubCallbackIf*), (override));
    MOCK_METHOD(std::uint32_t, PubSubDisconnect, (), (override));
    MOCK_METHOD(vi_connector::SubscribeResult, PubSubSubscribe, (const std::string&, bool),
                (override));
};

class MockOwner : public MqttConnectionCbIf {
public:
    MOCK_METHOD(void, MQTTMessageReceivedCb, (), (override));
    MOCK_METHOD(void, MQTTResubscribeCb, (), (override));
    MOCK_METHOD(void, MQTTSubscribeFailedCb, (), (override));
};

// The strict connector also proves that destruction leaves it alone.
class MqttConnectionTest : public testing::Test {
protected:
    std::shared_ptr<StrictMock<MockVIConnector>> connector_ =
        std::make_shared<StrictMock<MockVIConnector>>();
    StrictMock<MockOwner> owner_;
    MqttConnection sut{connector_, &owner_};
    csc_logging::LogCapture log_;
};

std::vector<std::uint8_t> Bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST_F(MqttConnectionTest, ConnectAcceptsStatus013SubscribeOnly03AndDisconnectPassesThrough) {
    for (const std::uint32_t status : {0U, 1U, 2U, 3U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(status);
        EXPECT_CALL(*connector_, PubSubConnect(static_cast<VIPubSubCallbackIf*>(&sut)))
            .WillOnce(Return(status));
        EXPECT_CALL(*connector_, PubSubSubscribe("t", true))
            .WillOnce(Return(vi_connector::SubscribeResult{status, 513}));

        EXPECT_EQ(sut.Connect(), status == 2 || status > 3);
        EXPECT_EQ(sut.Subscribe("t"), status != 0 && status != 3);
    }
    const std::vector<std::string> expected = {
        "MqttConnection: Connected to MQTT-CDP, result=0",
        "MqttConnection: Subscribed to topic t, status=0",
        "MqttConnection: Connected to MQTT-CDP, result=1",
        "MqttConnection: Failed to subscribe to topic t, status=1, Request ID:513",
        "MqttConnection: Failed to connect to MQTT-CDP, result=2",
        "MqttConnection: Failed to subscribe to topic t, status=2, Request ID:513",
        "MqttConnection: Connected to MQTT-CDP, result=3",
        "MqttConnection: Subscribed to topic t, status=3",
        // Statuses are logged as signed numbers.
        "MqttConnection: Failed to connect to MQTT-CDP, result=-1",
        "MqttConnection: Failed to subscribe to topic t, status=-1, Request ID:513"};
    EXPECT_EQ(log_.Texts(), expected);
    EXPECT_EQ(log_.Count(LogLevel::kError, "Failed to "), 5U);
    EXPECT_CALL(*connector_, PubSubDisconnect()).WillOnce(Return(77U));
    EXPECT_EQ(sut.Disconnect(), 77U);
}

TEST_F(MqttConnectionTest, MessagesComeOutInArrivalOrderWithEveryByte) {
    const std::string binary("\x00\x01zelk\x00\xff\x00", 9);
    std::string taken;
    // The owner may take a message from inside the notification.
    EXPECT_CALL(owner_, MQTTMessageReceivedCb())
        .WillOnce([&] { taken = sut.GetReceivedMessage(); })
        .WillRepeatedly(Return());

    sut.VIPublishReceived("topic/a", Bytes("push"), 1);
    EXPECT_EQ(taken, "push");
    EXPECT_FALSE(sut.CheckReceivedUpdate());
    sut.VIPublishReceived("topic/b", Bytes(binary), 7);
    sut.VIPublishReceived("topic/c", {}, 4294967295U);

    for (const std::string& expected : {binary, std::string()}) {
        ASSERT_TRUE(sut.CheckReceivedUpdate());
        EXPECT_EQ(sut.GetReceivedMessage(), expected);
    }
    EXPECT_FALSE(sut.CheckReceivedUpdate());
    EXPECT_TRUE(log_.Contains(LogLevel::kDebug,
                              "MqttConnection: Message received for topic topic/c, "
                              "message:, messageId: 4294967295"));
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(sut.GetReceivedMessage(), "") << "taking from an empty store aborts";
}

TEST_F(MqttConnectionTest, OnlyLosingTheBrokerAsksForResubscription) {
    const std::pair<std::vector<int>, int> cases[] = {
        {{1, 0}, 1}, {{1, 2, 0}, 0}, {{1, 0, 1, 0}, 2}, {{0, 0, 1, 1, 0, 0}, 1}, {{-1, 0}, 0}};
    for (const auto& [states, resubscriptions] : cases) {
        MqttConnection fresh(connector_, &owner_);
        EXPECT_CALL(owner_, MQTTResubscribeCb()).Times(resubscriptions);

        for (const auto state : states) {
            fresh.VIPubSubConnectionState(
                static_cast<VIPubSubCallbackIf::PubSubConnectionState>(state));
        }
        testing::Mock::VerifyAndClearExpectations(&owner_);
    }
    EXPECT_TRUE(log_.Contains(LogLevel::kDebug,
                              "MqttConnection: Connection state has changed from 1 to 2"));
}

TEST_F(MqttConnectionTest, RefusalsAndFailedRequestsReachTheOwnerIfAnyAndEveryNotificationLogs) {
    EXPECT_CALL(owner_, MQTTSubscribeFailedCb()).Times(1);
    EXPECT_CALL(owner_, MQTTResubscribeCb()).Times(2);
    EXPECT_CALL(owner_, MQTTMessageReceivedCb()).Times(1);
    MqttConnection orphan(connector_, nullptr);

    for (MqttConnection* connection : {&sut, &orphan}) {
        connection->VIPubSubConnectionState(VIPubSubCallbackIf::kDisconnected);
        connection->VIPubSubConnectionState(VIPubSubCallbackIf::kConnected);
        connection->VIPublishReceived("in", Bytes("kept"), 14);
        log_.Clear();
        connection->VISubscribeAcknowledgeReceived("t", VIPubSubCallbackIf::kGranted, 1);
        connection->VISubscribeAcknowledgeReceived("t", VIPubSubCallbackIf::kRefused, 65535);
        connection->VISubscribeAcknowledgeReceived("t", VIPubSubCallbackIf::SubscriptionStatus{2},
                                                   2);
        connection->VISubscribeFailed("push", 9);
        connection->VIPublishFailed("out", 10);
        connection->VIUnsubscribeFailed("old", 11);
        connection->VIPublishAcknowledgeReceived("out", 12);
        connection->VIUnsubscribeAcknowledgeReceived("old", 13);
        connection->VIConnectorStatus(vi_connector::SessionStatus::kRejected);

        const std::vector<std::string> expected = {
            "MqttConnection: Subscribe acknowledged to topic t, status 0 Request ID:1",
            "MqttConnection: Subscribe acknowledged to topic t, status 1 Request ID:65535",
            "MqttConnection: Subscribe acknowledged to topic t, status 2 Request ID:2",
            "MqttConnection: Subscribe to topic push failed, Request ID:9",
            "MqttConnection: Publish to topic out failed, Request ID:10",
            "MqttConnection: Unsubscribe to topic old failed, Request ID:11",
            "MqttConnection: Publish acknowledged to topic out, Request ID:12",
            "MqttConnection: Unsubscribe acknowledged to topic old, Request ID:13",
            "MqttConnection: VI-Connector status has changed to 3"};
        EXPECT_EQ(log_.Texts(), expected);
        EXPECT_EQ(log_.Count(LogLevel::kError, "failed, Request ID:"), 3U);
        EXPECT_EQ(connection->GetReceivedMessage(), "kept");
    }
}

}  // namespace
}  // namespace csa_common
