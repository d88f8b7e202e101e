// Starts as the client does: logging first, then the execution client.
#include "ara/exec/execution_client.h"
#include "csc_logging/csc_logging.hpp"

int main() {
    csc_logging::CSCLogging::InitLogging("KV", "kelvane lifecycle test");
    const ara::exec::ExecutionClient execution;
    return 0;
}
