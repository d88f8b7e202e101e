#ifndef CSA_COMMON_MQTT_CONNECTION_CB_IF_HPP
#define CSA_COMMON_MQTT_CONNECTION_CB_IF_HPP

namespace csa_common {

/// Notifications of the MQTT connection to its owner, made on a connector thread.
class MqttConnectionCbIf {
public:
    virtual ~MqttConnectionCbIf() = default;

    /// A message has been appended to the store.
    virtual void MQTTMessageReceivedCb() = 0;
    /// The subscription must be made again (broker link back, or a request failed).
    virtual void MQTTResubscribeCb() = 0;
    /// The broker refused a subscription.
    virtual void MQTTSubscribeFailedCb() = 0;
};

}  // namespace csa_common

#endif  // CSA_COMMON_MQTT_CONNECTION_CB_IF_HPP
