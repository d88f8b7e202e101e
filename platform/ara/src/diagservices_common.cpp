#include "service_domains.hpp"
#include "zelk/interfaces/diagservices/diagservices_skeleton.hpp"

namespace zelk::interfaces::diagservices {

ara::com::ApplicationErrorException MakeApplicationError(DiagServicesErrc errc) {
    return ara::com::internal::DiagServicesDomain().Make(static_cast<std::int32_t>(errc));
}

}  // namespace zelk::interfaces::diagservices
