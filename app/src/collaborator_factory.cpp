#include "app/collaborator_factory.hpp"

#include "backend/backend_connection.hpp"
#include "csa_common/clamp_control_handler.hpp"
#include "csa_common/mqtt_connection.hpp"
#include "process_lifecycle_adapter/process_lifecycle_adapter.hpp"
#include "tee/zelk_online_update_api.hpp"
#include "vi_connector/vi_connector.hpp"

namespace kelvane_client {

std::shared_ptr<process_lifecycle_adapter::ProcessLifecycleAdapter>
CollaboratorFactory::CreateLifecycleAdapter(
    const std::string& componentName,
    process_lifecycle_adapter::ProcessLifecycleAdapterCallbackIf* callback) const {
    return std::make_shared<process_lifecycle_adapter::ProcessLifecycleAdapter>(componentName,
                                                                                callback);
}

std::shared_ptr<vi_connector::VIConnector> CollaboratorFactory::CreateViConnector(
    vi_connector::VISessionCallbackIf* callback) const {
    return std::make_shared<vi_connector::VIConnector>(callback);
}

std::shared_ptr<qervo::tee::ZELKOnlineUpdateAPI> CollaboratorFactory::CreateTee() const {
    return qervo::tee::ZELKOnlineUpdateAPI::get_instance();
}

std::shared_ptr<csa_common::MqttConnectionIf> CollaboratorFactory::CreateMqttConnection(
    std::shared_ptr<vi_connector::VIConnector> connector,
    csa_common::MqttConnectionCbIf* callback) const {
    return std::make_shared<csa_common::MqttConnection>(std::move(connector), callback);
}

std::shared_ptr<BackendConnectionIf> CollaboratorFactory::CreateBackendConnection(
    std::shared_ptr<vi_connector::VIConnector> connector) const {
    return std::make_shared<BackendConnection>(std::move(connector));
}

std::shared_ptr<csa_common::ClampControlHandlerIf> CollaboratorFactory::CreateClampControlHandler(
    csa_common::ClampControlHandlerCbIf* callback) const {
    return std::make_shared<csa_common::ClampControlHandler>(callback);
}

}  // namespace kelvane_client
