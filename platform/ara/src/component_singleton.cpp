#include "ac/com/runtime/component_singleton.hpp"

#include <utility>

#include "csc_logging/csc_logging.hpp"
#include "runtime.hpp"

namespace ac::com::runtime {

Component_singleton::Component_singleton(bool connectNow, std::string name)
    : name_(std::move(name)), runtime_(ara::com::internal::Runtime::Instance()) {
    csc_logging::CSCLogging::Debug(csc_logging::CSCLogEntry()
                                   << "ara::com: component '" << name_ << "' on bus "
                                   << runtime_->BusAddress());
    if (connectNow) {
        runtime_->Start();
    }
}

Component_singleton::~Component_singleton() = default;

}  // namespace ac::com::runtime
