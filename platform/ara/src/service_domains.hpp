#ifndef ARA_SRC_SERVICE_DOMAINS_HPP
#define ARA_SRC_SERVICE_DOMAINS_HPP

#include "error_domain.hpp"

namespace ara::com::internal {

// Where each service's object lives under its bus name.
inline constexpr const char* kDiagServicesPath = "/zelk/interfaces/diagservices/DiagServices";
inline constexpr const char* kTypeIdAccessPath = "/zelk/interfaces/typeidaccess/TypeIdAccess";
inline constexpr const char* kGenericUdsServicePath = "/ac/dm/genericuds/GenericUDSService";

const ErrorDomain& DiagServicesDomain();
const ErrorDomain& TypeIdAccessDomain();
const ErrorDomain& GenericUdsServiceDomain();

}  // namespace ara::com::internal

#endif  // ARA_SRC_SERVICE_DOMAINS_HPP
