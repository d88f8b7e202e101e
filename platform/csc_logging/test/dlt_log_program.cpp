// Logs one line through the configured sinks: dlt_log_program APP_ID TEXT.
#include "csc_logging/csc_logging.hpp"

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    csc_logging::CSCLogging::InitLogging(argv[1], "kelvane logging test");
    csc_logging::CSCLogging::Info(argv[2]);
    return 0;
}
