#include "ara/exec/execution_client.h"

#include <systemd/sd-daemon.h>

#include <cstring>

#include "csc_logging/csc_logging.hpp"

namespace ara::exec {

ExecutionReturnType ExecutionClient::ReportExecutionState(ExecutionState state) const noexcept {
    const char* message = state == ExecutionState::kRunning ? "READY=1" : "STOPPING=1";
    const int result = sd_notify(0, message);
    if (result < 0) {
        csc_logging::CSCLogging::Warning(csc_logging::CSCLogEntry()
                                         << "ExecutionClient: cannot send " << message << ": "
                                         << std::strerror(-result));
        return ExecutionReturnType::kGeneralError;
    }
    return ExecutionReturnType::kSuccess;
}

}  // namespace ara::exec
