#ifndef ARA_EXEC_EXECUTION_CLIENT_H
#define ARA_EXEC_EXECUTION_CLIENT_H

#include <cstdint>
#include <memory>

namespace ara::exec {

class ServiceStatus;

/// The states an application reports to execution management.
enum class ExecutionState : std::uint8_t {
    kRunning = 0,
    kTerminating = 1,
};

enum class ExecutionReturnType : std::uint8_t {
    kSuccess = 0,
    kGeneralError = 1,
};

/// Reports the application's execution state to execution management. On a
/// host this is systemd's notification socket: kRunning sends "READY=1",
/// kTerminating "STOPPING=1", and while the client exists a STATUS= line tells
/// what it does and how its last update ended; without NOTIFY_SOCKET nothing
/// is sent. Made at start, it warns when the system clock reads earlier than
/// the build: a clock that was never set.
class ExecutionClient {
public:
    ExecutionClient() noexcept;
    virtual ~ExecutionClient() noexcept;
    ExecutionClient(const ExecutionClient&) = delete;
    ExecutionClient& operator=(const ExecutionClient&) = delete;

    virtual ExecutionReturnType ReportExecutionState(ExecutionState state) const noexcept;

private:
    std::unique_ptr<ServiceStatus> status_;
};

}  // namespace ara::exec

#endif  // ARA_EXEC_EXECUTION_CLIENT_H
