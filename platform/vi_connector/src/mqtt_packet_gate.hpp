#ifndef VI_CONNECTOR_MQTT_PACKET_GATE_HPP
#define VI_CONNECTOR_MQTT_PACKET_GATE_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace vi_connector {

/// Follows both byte streams of one MQTT connection, packet by packet, and
/// keeps every packet larger than kMaxPacketBytes away from the client
/// (libmosquitto, which would read it whole into memory): an oversized PUBLISH
/// is read past and, for QoS 1 and 2, acknowledged to the broker so that it is
/// not sent again; any other oversized packet breaks the connection. Whatever
/// the broker sends, the gate holds at most the start of one packet.
///
/// An MQTT 5 DISCONNECT from the broker is kept from the client too, and
/// nothing after it is passed on: libmosquitto 2.0.11 drops its reason string
/// and unlocks a mutex it does not hold when it handles one. The relay ends
/// the client's connection instead.
class MqttPacketGate {
public:
    /// 64 KiB of payload and room for the topic and properties; announced to
    /// the broker as the MQTT 5 Maximum Packet Size.
    static constexpr std::uint32_t kMaxPacketBytes = 64 * 1024 + 1024;

    /// What a broker's MQTT 5 DISCONNECT said (the string made printable).
    struct Disconnect {
        int reason = 0;
        std::string reasonString;
    };

    /// Client bytes on their way to the broker, appended to `toBroker`;
    /// acknowledgements of the gate's own go in between two packets.
    void FromClient(const char* data, std::size_t size, std::string& toBroker);
    /// Broker bytes: what the client may read is appended to `toClient`,
    /// acknowledgements to `toBroker` (or kept until the client's packet under
    /// way is complete); bytes after a DISCONNECT are ignored. False when the
    /// broker broke the protocol or sent an oversized packet other than a
    /// PUBLISH: Failure() says which.
    bool FromBroker(const char* data, std::size_t size, std::string& toClient,
                    std::string& toBroker);

    /// Acknowledgements waiting for the end of the client's packet under way.
    std::size_t PendingBytes() const { return pending_.size(); }
    const std::string& Failure() const { return failure_; }
    /// The broker's DISCONNECT, once one has arrived whole.
    const std::optional<Disconnect>& BrokerDisconnect() const { return disconnect_; }

private:
    // Where a stream stands: reading a fixed header, or `remaining` bytes into a body.
    struct Framing {
        std::uint8_t header[5] = {};
        std::size_t headerSize = 0;
        std::size_t remaining = 0;
        bool inBody = false;
        // Consumes fixed-header bytes from data; true once the header is whole
        // (then `remaining` is the body's size). False and `malformed` on a
        // length of more than four bytes.
        bool TakeHeader(const char*& data, std::size_t& size, bool& malformed);
        std::uint8_t Type() const { return header[0] >> 4; }
        std::size_t Total() const { return headerSize + remaining; }
    };
    enum class BrokerBody { kPass, kInspect, kOversizedPublish, kSkip };

    bool StartBrokerBody(std::string& toClient, std::string& toBroker);
    // How much of an oversized PUBLISH's start to keep: topic and packet id.
    std::size_t OversizedStartSize() const;
    bool TakeOversizedPublish(std::string& toBroker);
    void EndBrokerPacket();
    void Acknowledge(const std::string& ack, std::string& toBroker);
    bool Fail(const std::string& problem);

    Framing fromClient_;
    std::string connectStart_;  // the first bytes of the client's CONNECT body
    bool v5_ = false;
    std::string pending_;  // acknowledgements for after the client's packet

    Framing fromBroker_;
    BrokerBody brokerBody_ = BrokerBody::kPass;
    std::size_t oversizedSize_ = 0;
    std::string held_;  // a packet inspected whole, or an oversized PUBLISH's start
    std::string failure_;
    std::optional<Disconnect> disconnect_;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_MQTT_PACKET_GATE_HPP
