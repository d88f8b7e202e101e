#include "ara/exec/execution_client.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "csc_logging/csc_logging.hpp"
#include "service_status.hpp"
#include "utc_time.hpp"

namespace ara::exec {
namespace {

// The certificate check takes the system clock for the truth; a clock that
// reads earlier than this build was made has never been set.
void WarnWhenTheClockIsUnset() {
    const std::chrono::system_clock::time_point built{std::chrono::seconds(KELVANE_BUILD_EPOCH)};
    const auto now = std::chrono::system_clock::now();
    if (now >= built) {
        return;
    }
    csc_logging::CSCLogging::Warning(
        "System clock reads " + UtcTime(now) + ", earlier than this build (" + UtcTime(built) +
        "): the clock is not set. Until it is, the Base certificate's expiry is checked against "
        "a wrong time: a certificate that expires soon looks valid for years and no update "
        "starts at ignition");
}

}  // namespace

ExecutionClient::ExecutionClient() noexcept {
    WarnWhenTheClockIsUnset();
    const char* socket = std::getenv("NOTIFY_SOCKET");
    if (socket != nullptr && *socket != '\0') {
        status_ = std::make_unique<ServiceStatus>();
    }
}

ExecutionClient::~ExecutionClient() noexcept = default;

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
