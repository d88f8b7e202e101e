#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "csa_common/mqtt_connection.hpp"
#include "csc_logging/log_capture.hpp"
#include "test_support/child_process.hpp"
#include "test_support/mosquitto_broker.hpp"
#include "test_support/mosquitto_dynamic_security.hpp"
#include "test_support/temporary_directory.hpp"
#include "vi_connector/vi_connector.hpp"

// MqttConnection over the real host connector and a broker of the test's own.
namespace csa_common {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::MosquittoBroker;
using kelvane::testing::TemporaryDirectory;
using kelvane::testing::WaitUntil;

constexpr auto kTimeout = 10s;
constexpr const char* kTopic = "TTVI-Kelvane-C003.CTzelkDlcInitiation";

class CountingOwner : public MqttConnectionCbIf {
public:
    void MQTTMessageReceivedCb() override { ++messages; }
    void MQTTResubscribeCb() override { ++resubscriptions; }
    void MQTTSubscribeFailedCb() override { ++refusals; }

    std::atomic<int> messages{0};
    std::atomic<int> resubscriptions{0};
    std::atomic<int> refusals{0};
};

class NullSessionCallback : public vi_connector::VISessionCallbackIf {
public:
    void VIConnectorStatus(vi_connector::SessionStatus) override {}
};

class MqttConnectionBrokerTest : public testing::Test {
protected:
    void TearDown() override {
        // No notification may reach the connection once it is gone.
        if (connector_) {
            connector_->PubSubDisconnect();
        }
    }

    void StartConnector(std::uint16_t port) {
        const auto config =
            directory_.Write("vi.ini", "[mqtt]\nhost=127.0.0.1\nport=" + std::to_string(port) +
                                           "\nclient_id=kv-mqtt-connection\nkeep_alive=5\n"
                                           "reconnect_delay_min_ms=50\nreconnect_delay_max_ms=400\n"
                                           "[transaction t]\nurl=http://127.0.0.1:1/\ntoken=x\n");
        connector_ = std::make_shared<vi_connector::VIConnector>(&session_, nullptr, config);
        connector_->Start();
        ASSERT_TRUE(WaitUntil(
            [&] { return connector_->GetSessionStatus() == vi_connector::SessionStatus::kOk; },
            kTimeout));
        sut_ = std::make_unique<MqttConnection>(connector_, &owner_);
    }

    void Publish(std::uint16_t port, const std::string& topic, const std::string& message) {
        ChildProcess publisher({{"mosquitto_pub", "-h", "127.0.0.1", "-p", std::to_string(port),
                                 "-q", "1", "-t", topic, "-m", message},
                                {},
                                directory_.File("publisher.txt")});
        ASSERT_EQ(publisher.WaitForExit(kTimeout), std::optional<int>(0));
    }

    csc_logging::LogCapture log_;
    TemporaryDirectory directory_;
    NullSessionCallback session_;
    CountingOwner owner_;
    std::shared_ptr<vi_connector::VIConnector> connector_;
    std::unique_ptr<MqttConnection> sut_;
};

TEST_F(MqttConnectionBrokerTest, BrokerRestartAsksOnceForResubscriptionAndMessagesFlowAgain) {
    MosquittoBroker broker;
    StartConnector(broker.Port());

    ASSERT_FALSE(sut_->Connect());
    // The first connection is a 1 -> 0 transition too: it asks for the first subscription.
    ASSERT_TRUE(WaitUntil([&] { return owner_.resubscriptions == 1; }, kTimeout));
    ASSERT_FALSE(sut_->Subscribe(kTopic));
    ASSERT_TRUE(log_.WaitFor("Subscribe acknowledged to topic " + std::string(kTopic), kTimeout));
    Publish(broker.Port(), kTopic, "first");
    ASSERT_TRUE(WaitUntil([&] { return owner_.messages == 1; }, kTimeout));
    EXPECT_EQ(sut_->GetReceivedMessage(), "first");

    broker.Restart();

    ASSERT_TRUE(WaitUntil([&] { return owner_.resubscriptions == 2; }, kTimeout));
    ASSERT_FALSE(sut_->Subscribe(kTopic));
    ASSERT_TRUE(
        log_.WaitFor("Subscribe acknowledged to topic " + std::string(kTopic), kTimeout, 2));
    Publish(broker.Port(), kTopic, "after restart");
    ASSERT_TRUE(WaitUntil([&] { return owner_.messages == 2; }, kTimeout));
    EXPECT_EQ(sut_->GetReceivedMessage(), "after restart");
    EXPECT_FALSE(sut_->CheckReceivedUpdate());
    EXPECT_EQ(owner_.resubscriptions, 2);
    EXPECT_EQ(owner_.refusals, 0);
}

TEST_F(MqttConnectionBrokerTest, TopicTheBrokerDeniesGivesSubscribeFailedOnce) {
    TemporaryDirectory security;
    MosquittoBroker broker(kelvane::testing::DenySubscriptionsConfig(security, kTopic));
    StartConnector(broker.Port());
    ASSERT_FALSE(sut_->Connect());
    ASSERT_TRUE(WaitUntil([&] { return owner_.resubscriptions == 1; }, kTimeout));

    // The request itself is sent fine; the refusal comes with the acknowledgement.
    EXPECT_FALSE(sut_->Subscribe(kTopic));

    ASSERT_TRUE(WaitUntil([&] { return owner_.refusals == 1; }, kTimeout));
    EXPECT_TRUE(log_.Contains("Subscribe acknowledged to topic " + std::string(kTopic) +
                              ", status 1 Request ID:"));
    EXPECT_EQ(owner_.resubscriptions, 1);
}

}  // namespace
}  // namespace csa_common
