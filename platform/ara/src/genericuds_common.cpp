#include "ac/dm/genericuds/genericuds_skeleton.hpp"
#include "service_domains.hpp"

namespace ac::dm::genericuds {

ara::com::ApplicationErrorException MakeApplicationError(GenericUDSServiceErrc errc) {
    return ara::com::internal::GenericUdsServiceDomain().Make(static_cast<std::int32_t>(errc));
}

}  // namespace ac::dm::genericuds
