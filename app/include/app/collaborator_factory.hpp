#ifndef APP_COLLABORATOR_FACTORY_HPP
#define APP_COLLABORATOR_FACTORY_HPP

#include <memory>
#include <string>

namespace process_lifecycle_adapter {
class ProcessLifecycleAdapter;
class ProcessLifecycleAdapterCallbackIf;
}  // namespace process_lifecycle_adapter
namespace vi_connector {
class VIConnector;
class VISessionCallbackIf;
}  // namespace vi_connector
namespace qervo::tee {
class ZELKOnlineUpdateAPI;
}
namespace csa_common {
class MqttConnectionIf;
class MqttConnectionCbIf;
class ClampControlHandlerIf;
class ClampControlHandlerCbIf;
}  // namespace csa_common

namespace kelvane_client {

class BackendConnectionIf;

/// Makes the client's collaborators, each with the client as its callback
/// target. This one makes the real ones; tests derive a factory of fakes. A
/// collaborator that cannot be made is an empty pointer or an exception.
class CollaboratorFactory {
public:
    virtual ~CollaboratorFactory() = default;

    virtual std::shared_ptr<process_lifecycle_adapter::ProcessLifecycleAdapter>
    CreateLifecycleAdapter(
        const std::string& componentName,
        process_lifecycle_adapter::ProcessLifecycleAdapterCallbackIf* callback) const;
    /// Without a pub/sub callback; the MQTT connection registers its own.
    virtual std::shared_ptr<vi_connector::VIConnector> CreateViConnector(
        vi_connector::VISessionCallbackIf* callback) const;
    /// The process-wide key-management facade.
    virtual std::shared_ptr<qervo::tee::ZELKOnlineUpdateAPI> CreateTee() const;
    virtual std::shared_ptr<csa_common::MqttConnectionIf> CreateMqttConnection(
        std::shared_ptr<vi_connector::VIConnector> connector,
        csa_common::MqttConnectionCbIf* callback) const;
    virtual std::shared_ptr<BackendConnectionIf> CreateBackendConnection(
        std::shared_ptr<vi_connector::VIConnector> connector) const;
    virtual std::shared_ptr<csa_common::ClampControlHandlerIf> CreateClampControlHandler(
        csa_common::ClampControlHandlerCbIf* callback) const;
};

}  // namespace kelvane_client

#endif  // APP_COLLABORATOR_FACTORY_HPP
