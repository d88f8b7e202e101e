#ifndef ARA_EXEC_EXECUTION_CLIENT_H
#define ARA_EXEC_EXECUTION_CLIENT_H

#include <cstdint>

namespace ara::exec {

enum class ExecutionState : std::uint8_t {
    kRunning = 0,
    kTerminating = 1,
};

enum class ExecutionReturnType : std::uint8_t {
    kSuccess = 0,
    kGeneralError = 1,
};

/// Reports the application's execution state to execution management.
class ExecutionClient {
public:
    ExecutionClient() noexcept;
    virtual ~ExecutionClient() noexcept;
    ExecutionClient(const ExecutionClient&) = delete;
    ExecutionClient& operator=(const ExecutionClient&) = delete;

    virtual ExecutionReturnType ReportExecutionState(ExecutionState state) const noexcept;
};

}  // namespace ara::exec

#endif  // ARA_EXEC_EXECUTION_CLIENT_H
