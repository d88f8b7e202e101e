#include "tee/service_tracker.hpp"

#include "csc_logging/csc_logging.hpp"

namespace qervo::tee {

void LogServiceAvailability(const std::string& name, bool found) {
    csc_logging::CSCLogging::Info(name + (found ? " service found" : " service stopped"));
}

}  // namespace qervo::tee
