#ifndef TEE_SERVICE_CALL_HPP
#define TEE_SERVICE_CALL_HPP

#include <cstdint>
#include <string>

#include "ara/com/application_error_exception.hpp"
#include "csc_logging/csc_logging.hpp"
#include "tee/access_status.hpp"

namespace qervo::tee {

/// Runs `call` against a service: access_status::kOk when it returns, the
/// code of an application error it raised otherwise, logged after
/// `failurePrefix`. Other failures of the call propagate.
template <typename Call>
std::uint8_t CallService(const std::string& failurePrefix, Call&& call) {
    try {
        call();
        return access_status::kOk;
    } catch (const ara::com::ApplicationErrorException& error) {
        csc_logging::CSCLogging::Error(csc_logging::CSCLogEntry() << failurePrefix << error.what());
        return static_cast<std::uint8_t>(error.Error().Value());
    }
}

}  // namespace qervo::tee

#endif  // TEE_SERVICE_CALL_HPP
