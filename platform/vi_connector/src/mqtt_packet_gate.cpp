#include "mqtt_packet_gate.hpp"

#include <algorithm>

#include "csc_logging/csc_logging.hpp"

namespace vi_connector {
namespace {

constexpr std::uint8_t kConnect = 1;
constexpr std::uint8_t kPublish = 3;
constexpr std::uint8_t kDisconnect = 14;
constexpr std::uint8_t kReasonStringProperty = 0x1f;
// "The PUBLISH is valid but the receiver is not willing to accept it."
constexpr char kImplementationSpecificError = '\x83';
// Where the protocol level sits in a CONNECT body: after the name "MQTT" and its length.
constexpr std::size_t kProtocolLevelOffset = 6;
constexpr std::size_t kShownTopicCharacters = 100;

const char* TypeName(std::uint8_t type) {
    static const char* const names[] = {"reserved",  "CONNECT",  "CONNACK",     "PUBLISH",
                                        "PUBACK",    "PUBREC",   "PUBREL",      "PUBCOMP",
                                        "SUBSCRIBE", "SUBACK",   "UNSUBSCRIBE", "UNSUBACK",
                                        "PINGREQ",   "PINGRESP", "DISCONNECT",  "AUTH"};
    return names[type & 0x0f];
}

// Text from a hostile peer, made fit for one log line.
std::string Printable(const std::string& text) {
    std::string shown;
    for (const char c : text.substr(0, kShownTopicCharacters)) {
        shown += (c >= 0x20 && c < 0x7f) ? c : '?';
    }
    return text.size() > kShownTopicCharacters ? shown + "..." : shown;
}

std::size_t Uint16At(const std::string& bytes, std::size_t at) {
    return static_cast<std::size_t>(static_cast<unsigned char>(bytes[at])) << 8 |
           static_cast<unsigned char>(bytes[at + 1]);
}

// The reason code and reason string of an MQTT 5 DISCONNECT body; properties
// other than the reason string are skipped as far as their sizes are known.
MqttPacketGate::Disconnect ParseDisconnect(const std::string& body) {
    MqttPacketGate::Disconnect disconnect;
    if (body.empty()) {
        return disconnect;  // no reason code: normal disconnection
    }
    disconnect.reason = static_cast<unsigned char>(body[0]);
    std::size_t at = 1;
    std::size_t end = 0;
    for (std::size_t shift = 0; at < body.size() && shift < 28; shift += 7) {
        const auto byte = static_cast<unsigned char>(body[at++]);
        end |= static_cast<std::size_t>(byte & 0x7f) << shift;
        if ((byte & 0x80) == 0) {
            break;
        }
    }
    end = std::min(body.size(), at + end);
    while (at < end) {
        const auto property = static_cast<unsigned char>(body[at++]);
        if (property == 0x11) {  // session expiry interval
            at += 4;
            continue;
        }
        if (at + 2 > end ||
            (property != kReasonStringProperty && property != 0x1c && property != 0x26)) {
            break;
        }
        const std::size_t length = Uint16At(body, at);
        at += 2;
        if (property == kReasonStringProperty && at + length <= end) {
            disconnect.reasonString = Printable(body.substr(at, length));
        }
        at += length;
        if (property == 0x26 && at + 2 <= end) {  // a user property is a pair of strings
            at += 2 + Uint16At(body, at);
        }
    }
    return disconnect;
}

}  // namespace

bool MqttPacketGate::Framing::TakeHeader(const char*& data, std::size_t& size, bool& malformed) {
    while (size > 0) {
        const auto byte = static_cast<std::uint8_t>(*data++);
        --size;
        header[headerSize++] = byte;
        if (headerSize == 1) {
            continue;
        }
        if ((byte & 0x80) == 0) {
            remaining = 0;
            for (std::size_t i = headerSize - 1; i >= 1; --i) {
                remaining = remaining * 128 + (header[i] & 0x7f);
            }
            inBody = true;
            return true;
        }
        if (headerSize == sizeof(header)) {
            malformed = true;
            return false;
        }
    }
    return false;
}

void MqttPacketGate::FromClient(const char* data, std::size_t size, std::string& toBroker) {
    while (size > 0) {
        if (!fromClient_.inBody) {
            const char* start = data;
            bool malformed = false;
            const bool whole = fromClient_.TakeHeader(data, size, malformed);
            toBroker.append(start, static_cast<std::size_t>(data - start));
            if (!whole) {
                return;  // libmosquitto sends only well-formed lengths
            }
        }
        const std::size_t take = std::min(size, fromClient_.remaining);
        if (fromClient_.Type() == kConnect && connectStart_.size() <= kProtocolLevelOffset) {
            connectStart_.append(data,
                                 std::min(take, kProtocolLevelOffset + 1 - connectStart_.size()));
            v5_ = connectStart_.size() > kProtocolLevelOffset &&
                  connectStart_[kProtocolLevelOffset] == 5;
        }
        toBroker.append(data, take);
        data += take;
        size -= take;
        fromClient_.remaining -= take;
        if (fromClient_.remaining == 0) {
            fromClient_ = Framing();
            toBroker += pending_;
            pending_.clear();
        }
    }
}

bool MqttPacketGate::FromBroker(const char* data, std::size_t size, std::string& toClient,
                                std::string& toBroker) {
    while (size > 0 && failure_.empty() && !disconnect_) {
        if (!fromBroker_.inBody) {
            bool malformed = false;
            if (!fromBroker_.TakeHeader(data, size, malformed)) {
                return !malformed ||
                       Fail("the broker sent a packet length of more than four bytes");
            }
            if (!StartBrokerBody(toClient, toBroker)) {
                return false;
            }
        }
        std::size_t take = std::min(size, fromBroker_.remaining);
        switch (brokerBody_) {
            case BrokerBody::kPass:
                toClient.append(data, take);
                break;
            case BrokerBody::kInspect:
                held_.append(data, take);
                break;
            case BrokerBody::kOversizedPublish:
                // Only the topic and the packet id are kept, never the payload.
                take = std::min(take, OversizedStartSize() - held_.size());
                held_.append(data, take);
                break;
            case BrokerBody::kSkip:
                break;
        }
        data += take;
        size -= take;
        fromBroker_.remaining -= take;
        if (brokerBody_ == BrokerBody::kOversizedPublish && !TakeOversizedPublish(toBroker)) {
            return false;
        }
        if (fromBroker_.remaining == 0) {
            EndBrokerPacket();
        }
    }
    return failure_.empty();
}

bool MqttPacketGate::StartBrokerBody(std::string& toClient, std::string& toBroker) {
    const std::uint8_t type = fromBroker_.Type();
    const std::string header(reinterpret_cast<const char*>(fromBroker_.header),
                             fromBroker_.headerSize);
    if (fromBroker_.Total() > kMaxPacketBytes) {
        if (type != kPublish) {
            return Fail("the broker sent a " + std::to_string(fromBroker_.Total()) + " byte " +
                        TypeName(type) + " packet, larger than " + std::to_string(kMaxPacketBytes) +
                        " bytes");
        }
        brokerBody_ = BrokerBody::kOversizedPublish;
        oversizedSize_ = fromBroker_.Total();
        held_.clear();
        return TakeOversizedPublish(toBroker);  // refuses QoS 3 before reading on
    }
    if (type == kDisconnect && v5_) {
        brokerBody_ = BrokerBody::kInspect;
        held_ = header;
    } else {
        brokerBody_ = BrokerBody::kPass;
        toClient += header;
    }
    return true;
}

std::size_t MqttPacketGate::OversizedStartSize() const {
    if (held_.size() < 2) {
        return 2;  // the topic's length
    }
    const bool hasPacketId = (fromBroker_.header[0] & 0x06) != 0;
    return 2 + Uint16At(held_, 0) + (hasPacketId ? 2 : 0);
}

bool MqttPacketGate::TakeOversizedPublish(std::string& toBroker) {
    const int qos = (fromBroker_.header[0] >> 1) & 3;
    if (qos == 3) {
        return Fail("the broker sent a PUBLISH with QoS 3");
    }
    if (held_.size() < 2 || held_.size() < OversizedStartSize()) {
        return true;
    }
    const std::size_t topicSize = Uint16At(held_, 0);
    csc_logging::CSCLogging::Warning("VIConnector: dropped a " + std::to_string(oversizedSize_) +
                                     " byte MQTT message on '" +
                                     Printable(held_.substr(2, topicSize)) + "': larger than " +
                                     std::to_string(kMaxPacketBytes) + " bytes");
    if (qos > 0) {
        // PUBACK (QoS 1) or PUBREC (QoS 2) for its packet id: the broker is
        // done with it and sends the pushes queued behind it.
        std::string ack(1, static_cast<char>(qos == 1 ? 0x40 : 0x50));
        ack += v5_ ? '\x03' : '\x02';
        ack += held_.substr(2 + topicSize, 2);
        if (v5_) {
            ack += kImplementationSpecificError;
        }
        Acknowledge(ack, toBroker);
    }
    held_.clear();
    brokerBody_ = BrokerBody::kSkip;
    return true;
}

void MqttPacketGate::EndBrokerPacket() {
    if (brokerBody_ == BrokerBody::kInspect) {
        disconnect_ = ParseDisconnect(held_.substr(fromBroker_.headerSize));
        held_.clear();
    }
    fromBroker_ = Framing();
}

void MqttPacketGate::Acknowledge(const std::string& ack, std::string& toBroker) {
    if (fromClient_.headerSize == 0) {
        toBroker += ack;
    } else {
        pending_ += ack;
    }
}

bool MqttPacketGate::Fail(const std::string& problem) {
    failure_ = problem;
    return false;
}

}  // namespace vi_connector
