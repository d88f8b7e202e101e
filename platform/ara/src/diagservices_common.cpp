#include "zelk/interfaces/diagservices/diagservices_common.hpp"

#include "service_domains.hpp"

namespace zelk::interfaces::diagservices {

ara::com::ApplicationErrorException MakeApplicationError(DiagServicesErrc errc) {
    return ara::com::internal::DiagServicesDomain().Make(static_cast<std::int32_t>(errc));
}

}  // namespace zelk::interfaces::diagservices
