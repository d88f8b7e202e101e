#include "service_domains.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_skeleton.hpp"

namespace zelk::interfaces::typeidaccess {

ara::com::ApplicationErrorException MakeApplicationError(TypeIdAccessErrc errc) {
    return ara::com::internal::TypeIdAccessDomain().Make(static_cast<std::int32_t>(errc));
}

}  // namespace zelk::interfaces::typeidaccess
