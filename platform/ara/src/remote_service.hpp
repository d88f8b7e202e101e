#ifndef ARA_SRC_REMOTE_SERVICE_HPP
#define ARA_SRC_REMOTE_SERVICE_HPP

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

#include "ara/com/types.hpp"
#include "error_domain.hpp"
#include "idl/bus_connection.hpp"

namespace ara::com::internal {

/// The generated client glue of one interface on a connection of its own.
template <typename Glue>
class GlueProxy final : public sdbus::ProxyInterfaces<Glue> {
public:
    GlueProxy(sdbus::IConnection& connection, std::string destination, std::string objectPath)
        : sdbus::ProxyInterfaces<Glue>(connection, std::move(destination), std::move(objectPath)) {
        this->registerProxy();
    }
    ~GlueProxy() { this->unregisterProxy(); }
};

/// The bus side of one proxy. Calls go out on a connection of the proxy's own
/// without an event loop: sd-bus then waits for the answer on the calling
/// thread, with no hop through another thread. The connection is opened on the
/// first call and opened again after a call found it broken.
template <typename Glue>
class RemoteService {
public:
    RemoteService(ServiceHandle handle, const ErrorDomain& domain)
        : handle_(std::move(handle)), domain_(domain) {}

    /// Runs `call` with the glue; a failed call raises what the error means
    /// (see ErrorDomain::Raise). Calls of one proxy are serialised.
    template <typename Call>
    auto Invoke(Call&& call) -> decltype(call(std::declval<Glue&>())) {
        std::lock_guard<std::mutex> lock(mutex_);
        try {
            if (!glue_) {
                Open();
            }
            return call(static_cast<Glue&>(*glue_));
        } catch (const sdbus::Error& error) {
            if (!IsAnswer(error)) {
                glue_.reset();
                connection_.reset();
            }
            domain_.Raise(error);
        }
    }

private:
    void Open() {
        connection_ = idl::OpenBusConnection(handle_.BusAddress());
        // A call waits for its answer however long the service takes.
        connection_->setMethodCallTimeout(std::numeric_limits<std::uint64_t>::max());
        glue_ = std::make_unique<GlueProxy<Glue>>(*connection_, handle_.BusName(),
                                                  handle_.ObjectPath());
    }
    bool IsAnswer(const sdbus::Error& error) const {
        const std::string prefix = domain_.DbusInterface() + ".Error.";
        return error.getName().compare(0, prefix.size(), prefix) == 0;
    }

    const ServiceHandle handle_;
    const ErrorDomain& domain_;
    std::mutex mutex_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<GlueProxy<Glue>> glue_;
};

}  // namespace ara::com::internal

#endif  // ARA_SRC_REMOTE_SERVICE_HPP
