#include "ara/exec/execution_client.h"
#include "ara/phm/supervised_entity.h"

namespace ara::exec {

ExecutionClient::ExecutionClient() noexcept = default;
ExecutionClient::~ExecutionClient() noexcept = default;
ExecutionReturnType ExecutionClient::ReportExecutionState(ExecutionState) const noexcept {
    return ExecutionReturnType::kGeneralError;
}

}  // namespace ara::exec

namespace ara::phm {

SupervisedEntity::SupervisedEntity(std::string) {}
SupervisedEntity::~SupervisedEntity() = default;
void SupervisedEntity::ReportCheckpointId(std::uint32_t) const {}

}  // namespace ara::phm
