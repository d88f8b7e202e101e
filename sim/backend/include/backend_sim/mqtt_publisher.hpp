#ifndef BACKEND_SIM_MQTT_PUBLISHER_HPP
#define BACKEND_SIM_MQTT_PUBLISHER_HPP

#include <chrono>
#include <cstdint>
#include <string>

namespace backend_sim {

/// Publishes one push message through an MQTT broker: connect, publish,
/// wait until the broker has taken it (for QoS 1 and 2), disconnect.
class MqttPublisher {
public:
    struct Settings {
        std::string host = "127.0.0.1";
        std::uint16_t port = 1883;
        /// A random suffix is added so that parallel pushes do not evict each other.
        std::string clientId = "kelvane-backend-sim";
        std::string topic;
        int qos = 1;
        bool retain = false;
        std::chrono::milliseconds timeout{5000};
    };

    /// False with a one-line reason in `error` when the broker cannot be
    /// reached or did not take the message within the time-out.
    static bool Publish(const Settings& settings, const std::string& payload, std::string& error);
};

}  // namespace backend_sim

#endif  // BACKEND_SIM_MQTT_PUBLISHER_HPP
