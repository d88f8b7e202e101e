#ifndef ARA_COM_COM_ERROR_DOMAIN_HPP
#define ARA_COM_COM_ERROR_DOMAIN_HPP

#include <cstdint>
#include <string>

#include "ara/core/exception.hpp"

namespace ara::com {

/// Failures of the communication itself, as opposed to application errors.
enum class ComErrc : std::int32_t {
    kServiceNotAvailable = 1,
    kNetworkBindingFailure = 3,
    kServiceNotOffered = 11,
    kCommunicationLinkError = 12,
};

/// Thrown by a proxy's future when the call did not reach the service or its
/// answer was not understood; what() gives the domain, the error and the cause.
class ComException : public ara::core::Exception {
public:
    ComException(ComErrc errc, const std::string& cause);

    ComErrc Errc() const noexcept { return errc_; }
    const char* what() const noexcept override { return text_.c_str(); }

private:
    ComErrc errc_;
    std::string text_;
};

}  // namespace ara::com

#endif  // ARA_COM_COM_ERROR_DOMAIN_HPP
