#ifndef ARA_COM_APPLICATION_ERROR_EXCEPTION_HPP
#define ARA_COM_APPLICATION_ERROR_EXCEPTION_HPP

#include "ara/core/exception.hpp"

namespace ara::com {

/// An error a service method declares and raises ("DiagServices::ZELK_ERROR_BUSY::23").
/// Thrown by a skeleton's method to answer with the error, and by a proxy's
/// future when the service answered with it.
class ApplicationErrorException : public ara::core::Exception {
public:
    using ara::core::Exception::Exception;
};

}  // namespace ara::com

#endif  // ARA_COM_APPLICATION_ERROR_EXCEPTION_HPP
