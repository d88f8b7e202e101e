#include "csc_logging/csc_logging.hpp"

namespace csc_logging {

void CSCLogging::InitLogging(const std::string&, const std::string&) {}
void CSCLogging::Verbose(const std::string&) {}
void CSCLogging::Debug(const std::string&) {}
void CSCLogging::Info(const std::string&) {}
void CSCLogging::Warning(const std::string&) {}
void CSCLogging::Error(const std::string&) {}

}  // namespace csc_logging
