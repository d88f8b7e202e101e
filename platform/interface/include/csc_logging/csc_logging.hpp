#ifndef CSC_LOGGING_CSC_LOGGING_HPP
#define CSC_LOGGING_CSC_LOGGING_HPP

#include <string>

#include "csc_logging/csc_log_entry.hpp"

namespace csc_logging {

/// The platform's logging front end.
class CSCLogging {
public:
    static void InitLogging(const std::string& appId, const std::string& description = "");

    static void Verbose(const std::string& text);
    static void Debug(const std::string& text);
    static void Info(const std::string& text);
    static void Warning(const std::string& text);
    static void Error(const std::string& text);

    static void Verbose(const CSCLogEntry& entry) { Verbose(entry.str()); }
    static void Debug(const CSCLogEntry& entry) { Debug(entry.str()); }
    static void Info(const CSCLogEntry& entry) { Info(entry.str()); }
    static void Warning(const CSCLogEntry& entry) { Warning(entry.str()); }
    static void Error(const CSCLogEntry& entry) { Error(entry.str()); }
};

}  // namespace csc_logging

#endif  // CSC_LOGGING_CSC_LOGGING_HPP
