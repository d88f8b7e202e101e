#ifndef CSA_COMMON_MQTT_CONNECTION_IF_HPP
#define CSA_COMMON_MQTT_CONNECTION_IF_HPP

#include <cstdint>
#include <string>

namespace csa_common {

/// The publish/subscribe channel as the client sees it. The bool operations
/// return true on FAILURE.
class MqttConnectionIf {
public:
    virtual ~MqttConnectionIf() = default;

    virtual bool Subscribe(const std::string& topic) = 0;
    virtual bool Connect() = 0;
    /// Whatever the connector's pub/sub disconnect returns.
    virtual std::uint32_t Disconnect() = 0;
    /// True when at least one received message waits in the store.
    virtual bool CheckReceivedUpdate() = 0;
    /// Takes the oldest stored message; the store must not be empty.
    virtual std::string GetReceivedMessage() = 0;
    virtual bool Publish(const std::string& topic, const std::string& message, bool flag,
                         unsigned int value1, unsigned int value2, std::string text) = 0;
};

}  // namespace csa_common

#endif  // CSA_COMMON_MQTT_CONNECTION_IF_HPP
