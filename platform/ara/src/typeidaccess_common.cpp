#include "zelk/interfaces/typeidaccess/typeidaccess_common.hpp"

#include "service_domains.hpp"

namespace zelk::interfaces::typeidaccess {

ara::com::ApplicationErrorException MakeApplicationError(TypeIdAccessErrc errc) {
    return ara::com::internal::TypeIdAccessDomain().Make(static_cast<std::int32_t>(errc));
}

}  // namespace zelk::interfaces::typeidaccess
