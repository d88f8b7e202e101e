#ifndef TESTS_FUZZ_FUZZ_LOGGING_HPP
#define TESTS_FUZZ_FUZZ_LOGGING_HPP

#include <cstdlib>

#include "csc_logging/csc_logging.hpp"

namespace fuzz {

/// Every record is still formatted, so the logging of fuzzed text runs too,
/// but none is written unless KELVANE_LOG / KELVANE_LOG_LEVEL say otherwise.
inline void QuietLogging() {
    ::setenv("KELVANE_LOG", "none", 0);
    ::setenv("KELVANE_LOG_LEVEL", "verbose", 0);
    csc_logging::CSCLogging::InitLogging("FZ");
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_FUZZ_LOGGING_HPP
