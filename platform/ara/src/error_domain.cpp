#include "error_domain.hpp"

#include <stdexcept>

#include "ara/com/com_error_domain.hpp"

namespace ara::com::internal {

ApplicationErrorException ErrorDomain::Make(std::int32_t code) const {
    for (const auto& [errorName, value] : errors_) {
        if (value == code) {
            return ApplicationErrorException(ara::core::ErrorCode(name_, errorName, value));
        }
    }
    throw std::out_of_range(name_ + " declares no error " + std::to_string(code));
}

sdbus::Error ErrorDomain::ToBusError(const ApplicationErrorException& error) const {
    const auto& code = error.Error();
    if (code.Domain() != name_ || CodeOf(code.Name()) != code.Value()) {
        return sdbus::Error("org.freedesktop.DBus.Error.Failed",
                            std::string("undeclared application error ") + error.what());
    }
    return sdbus::Error(dbusInterface_ + ".Error." + code.Name(), error.what());
}

void ErrorDomain::Raise(const sdbus::Error& error) const {
    const std::string prefix = dbusInterface_ + ".Error.";
    const std::string& name = error.getName();
    const std::string cause = name + ": " + error.getMessage();
    if (name.compare(0, prefix.size(), prefix) == 0) {
        if (const auto code = CodeOf(name.substr(prefix.size()))) {
            throw Make(*code);
        }
        throw ComException(ComErrc::kNetworkBindingFailure, "undeclared error " + cause);
    }
    if (name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
        name == "org.freedesktop.DBus.Error.NameHasNoOwner") {
        throw ComException(ComErrc::kServiceNotAvailable, cause);
    }
    if (name == "org.freedesktop.DBus.Error.NoReply" ||
        name == "org.freedesktop.DBus.Error.Disconnected" ||
        name == "org.freedesktop.DBus.Error.NoServer" ||
        name == "org.freedesktop.DBus.Error.Timeout" || name.rfind("System.Error.", 0) == 0) {
        throw ComException(ComErrc::kCommunicationLinkError, cause);
    }
    throw ComException(ComErrc::kNetworkBindingFailure, cause);
}

std::optional<std::int32_t> ErrorDomain::CodeOf(const std::string& errorName) const {
    for (const auto& [declared, value] : errors_) {
        if (declared == errorName) {
            return value;
        }
    }
    return std::nullopt;
}

}  // namespace ara::com::internal
