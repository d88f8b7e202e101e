#include "mqtt_packet_gate.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/scripted_mqtt_broker.hpp"

namespace vi_connector {
namespace {

using kelvane::testing::ScriptedMqttBroker;

const std::string kConnectV5("\x10\x0d\x00\x04MQTT\x05\x02\x00\x1e\x00\x00\x00", 15);
const std::string kConnectV311("\x10\x0c\x00\x04MQTT\x04\x02\x00\x1e\x00\x00", 14);
const std::string kConnack("\x20\x03\x00\x00\x00", 5);

// Feeds `bytes` to the gate `chunk` bytes at a time, as the relay's reads would.
bool FromBroker(MqttPacketGate& sut, const std::string& bytes, std::size_t chunk,
                std::string& toClient, std::string& toBroker) {
    for (std::size_t at = 0; at < bytes.size(); at += chunk) {
        const std::size_t size = std::min(chunk, bytes.size() - at);
        if (!sut.FromBroker(bytes.data() + at, size, toClient, toBroker)) {
            return false;
        }
    }
    return true;
}

class MqttPacketGateTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(MqttPacketGateTest, OnlyPacketsWithinTheBoundReachTheClientAndAcksGoBetweenPackets) {
    const std::size_t chunk = GetParam();
    csc_logging::LogCapture log;
    MqttPacketGate sut;
    std::string toClient, toBroker;
    const std::string small = ScriptedMqttBroker::Publish("push/ecu", "go", 1, 6, true);
    // Exactly at the bound passes; one byte more does not.
    const std::string atBound = ScriptedMqttBroker::Publish(
        "push/ecu", std::string(MqttPacketGate::kMaxPacketBytes - 17, 'b'), 1, 5, true);
    const std::string oversized = ScriptedMqttBroker::Publish(
        "push/ecu", std::string(MqttPacketGate::kMaxPacketBytes - 16, 'o'), 1, 7, true);
    const std::string takeover = ScriptedMqttBroker::Disconnect(0x8e, "taken over");
    const std::string clientPublish = ScriptedMqttBroker::Publish("up", "data", 0, 0, true);
    ASSERT_EQ(atBound.size(), MqttPacketGate::kMaxPacketBytes);

    sut.FromClient(kConnectV5.data(), kConnectV5.size(), toBroker);
    sut.FromClient(clientPublish.data(), 3, toBroker);  // the client is within a packet
    ASSERT_TRUE(FromBroker(sut, kConnack + small + atBound + oversized, chunk, toClient, toBroker));
    const std::string whileClientWrites = toBroker;
    sut.FromClient(clientPublish.data() + 3, clientPublish.size() - 3, toBroker);
    ASSERT_TRUE(FromBroker(sut, small + takeover + small, chunk, toClient, toBroker));

    // Nothing from the DISCONNECT on: the relay ends the client's connection itself.
    EXPECT_EQ(toClient, kConnack + small + atBound + small);
    EXPECT_EQ(whileClientWrites, kConnectV5 + clientPublish.substr(0, 3));
    EXPECT_EQ(toBroker, kConnectV5 + clientPublish + std::string("\x40\x03\x00\x07\x83", 5));
    ASSERT_TRUE(sut.BrokerDisconnect().has_value());
    EXPECT_EQ(sut.BrokerDisconnect()->reason, 0x8e);
    EXPECT_EQ(sut.BrokerDisconnect()->reasonString, "taken over");
    EXPECT_EQ(log.Count("dropped a " + std::to_string(oversized.size()) +
                        " byte MQTT message on 'push/ecu': larger than 66560 bytes"),
              1U);
}

INSTANTIATE_TEST_SUITE_P(ReadSizes, MqttPacketGateTest, ::testing::Values(1, 3, 16384, 1 << 20));

TEST(MqttPacketGateTest, AHundredMebibyteMessageIsReadPastWithoutBeingHeld) {
    MqttPacketGate sut;
    std::string toClient, toBroker;
    sut.FromClient(kConnectV311.data(), kConnectV311.size(), toBroker);
    toBroker.clear();
    const std::size_t payloadSize = 100 << 20;
    // The packet's start, then its payload made chunk by chunk: the test holds none of it either.
    const std::string start = ScriptedMqttBroker::Publish("push/ecu", "", 1, 0x1234, false);
    std::string header = start.substr(0, 1);
    for (std::size_t length = start.size() - 2 + payloadSize; length > 0; length /= 128) {
        header += static_cast<char>((length % 128) | (length >= 128 ? 0x80 : 0));
    }
    ASSERT_TRUE(FromBroker(sut, header + start.substr(2), 3, toClient, toBroker));
    const std::string chunk(64 * 1024, 'p');
    std::size_t largestOutput = 0;
    for (std::size_t sent = 0; sent < payloadSize; sent += chunk.size()) {
        ASSERT_TRUE(sut.FromBroker(chunk.data(), chunk.size(), toClient, toBroker));
        largestOutput = std::max(largestOutput, toClient.size() + toBroker.size());
    }
    const std::string next = ScriptedMqttBroker::Publish("push/ecu", "next", 1, 2, false);
    ASSERT_TRUE(sut.FromBroker(next.data(), next.size(), toClient, toBroker));

    EXPECT_EQ(toClient, next);
    EXPECT_EQ(toBroker, std::string("\x40\x02\x12\x34", 4));  // MQTT 3.1.1 PUBACK
    EXPECT_LE(largestOutput, 4U);
}

TEST(MqttPacketGateTest, ABrokerBreakingTheFramingEndsTheConnectionNamingWhy) {
    const struct {
        std::string bytes;
        std::string failure;
    } cases[] = {
        {std::string("\x90\xff\xff\x04", 4), "the broker sent a 81923 byte SUBACK packet"},
        {std::string("\x30\xff\xff\xff\xff\x01", 6), "a packet length of more than four bytes"},
        {std::string("\x36\xff\xff\x04", 4), "a PUBLISH with QoS 3"},
    };
    for (const auto& [bytes, failure] : cases) {
        MqttPacketGate sut;
        std::string toClient, toBroker;

        EXPECT_FALSE(FromBroker(sut, kConnack + bytes, 1, toClient, toBroker));

        EXPECT_NE(sut.Failure().find(failure), std::string::npos) << sut.Failure();
        EXPECT_EQ(toClient, kConnack);
    }
}

}  // namespace
}  // namespace vi_connector
