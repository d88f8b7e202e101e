#ifndef ARA_SRC_ERROR_DOMAIN_HPP
#define ARA_SRC_ERROR_DOMAIN_HPP

#include <sdbus-c++/Error.h>

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ara/com/application_error_exception.hpp"

namespace ara::com::internal {

/// The application errors one service interface declares, and how they cross
/// the bus: as the D-Bus error "<interface>.Error.<NAME>" whose message is the
/// error's identification.
class ErrorDomain {
public:
    ErrorDomain(std::string name, std::string dbusInterface,
                std::vector<std::pair<std::string, std::int32_t>> errors)
        : name_(std::move(name))
        , dbusInterface_(std::move(dbusInterface))
        , errors_(std::move(errors)) {}

    const std::string& Name() const { return name_; }
    const std::string& DbusInterface() const { return dbusInterface_; }
    const std::vector<std::pair<std::string, std::int32_t>>& Errors() const { return errors_; }

    /// The exception for a declared error; std::out_of_range for another code.
    ApplicationErrorException Make(std::int32_t code) const;
    /// The D-Bus error answering `error`; org.freedesktop.DBus.Error.Failed
    /// for an error this domain does not declare.
    sdbus::Error ToBusError(const ApplicationErrorException& error) const;
    /// Throws what a failed call means to the caller: the application error
    /// for a declared one, else an ara::com::ComException.
    [[noreturn]] void Raise(const sdbus::Error& error) const;

private:
    std::optional<std::int32_t> CodeOf(const std::string& errorName) const;

    std::string name_;
    std::string dbusInterface_;
    std::vector<std::pair<std::string, std::int32_t>> errors_;
};

/// Runs a skeleton's method for the bus: application errors and any other
/// failure become D-Bus error answers (sdbus-c++ lets only sdbus::Error through).
template <typename Method>
auto Serve(const ErrorDomain& domain, Method&& method) -> decltype(method()) {
    try {
        return method();
    } catch (const sdbus::Error&) {
        throw;
    } catch (const ApplicationErrorException& error) {
        throw domain.ToBusError(error);
    } catch (const std::exception& error) {
        throw sdbus::Error("org.freedesktop.DBus.Error.Failed", error.what());
    } catch (...) {
        throw sdbus::Error("org.freedesktop.DBus.Error.Failed", "unknown exception");
    }
}

}  // namespace ara::com::internal

#endif  // ARA_SRC_ERROR_DOMAIN_HPP
