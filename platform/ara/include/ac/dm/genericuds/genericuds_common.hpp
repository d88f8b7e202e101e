#ifndef AC_DM_GENERICUDS_GENERICUDS_COMMON_HPP
#define AC_DM_GENERICUDS_GENERICUDS_COMMON_HPP

#include <cstdint>
#include <vector>

#include "ara/com/application_error_exception.hpp"

/// Types shared by the proxy and the skeleton of the diagnostic manager's
/// generic UDS service.
namespace ac::dm::genericuds {

/// The instance the client looks for and the diagnostic manager offers.
inline constexpr const char* kInstance = "ac::dm::genericuds::GenericUDSService";

struct HandleMessageOutput {
    /// The response bytes after the positive-response service id.
    std::vector<std::uint8_t> responseData;
};

/// The application errors of the interface, error domain "GenericUDSService".
enum class GenericUDSServiceErrc : std::int32_t {
    UDSServiceFailed = 2,
};

}  // namespace ac::dm::genericuds

#endif  // AC_DM_GENERICUDS_GENERICUDS_COMMON_HPP
