#ifndef CSC_LOGGING_SYSLOG_PRIORITY_HPP
#define CSC_LOGGING_SYSLOG_PRIORITY_HPP

#include "csc_logging/log_level.hpp"

namespace csc_logging {

/// The syslog priority of a level, for the journal's PRIORITY field and the
/// console's sd-daemon(3) prefix alike: 3 error, 4 warning, 6 info, 7 below.
inline int SyslogPriority(LogLevel level) {
    switch (level) {
        case LogLevel::kError:
            return 3;
        case LogLevel::kWarning:
            return 4;
        case LogLevel::kInfo:
            return 6;
        case LogLevel::kDebug:
        case LogLevel::kVerbose:
            break;
    }
    return 7;
}

}  // namespace csc_logging

#endif  // CSC_LOGGING_SYSLOG_PRIORITY_HPP
