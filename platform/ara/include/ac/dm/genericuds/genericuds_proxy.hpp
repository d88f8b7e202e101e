#ifndef AC_DM_GENERICUDS_GENERICUDS_PROXY_HPP
#define AC_DM_GENERICUDS_GENERICUDS_PROXY_HPP

#include <cstdint>
#include <memory>
#include <vector>

#include "ac/dm/genericuds/genericuds_common.hpp"
#include "ara/com/proxy_method.hpp"
#include "ara/com/types.hpp"
#include "ara/core/future.hpp"
#include "ara/core/instance_specifier.hpp"

namespace ac::dm::genericuds::proxy {

/// Client side of one GenericUDSService instance; see DiagServicesProxy for
/// how the method members, futures and errors behave.
class GenericUDSServiceProxy {
public:
    using HandleType = ara::com::ServiceHandle;

    static ara::com::FindServiceHandle StartFindService(
        ara::com::FindServiceHandler<HandleType> handler,
        const ara::core::InstanceSpecifier& instance);
    static void StopFindService(ara::com::FindServiceHandle handle);

    explicit GenericUDSServiceProxy(const HandleType& handle);
    virtual ~GenericUDSServiceProxy();
    GenericUDSServiceProxy(const GenericUDSServiceProxy&) = delete;
    GenericUDSServiceProxy& operator=(const GenericUDSServiceProxy&) = delete;

    const HandleType& GetHandle() const { return handle_; }

    /// A UDS request: the service id and the bytes after it.
    ara::com::ProxyMethod<GenericUDSServiceProxy, HandleMessageOutput, std::uint8_t,
                          const std::vector<std::uint8_t>&>
        HandleMessage{*this, &GenericUDSServiceProxy::CallHandleMessage};

protected:
    // The remote call behind the member; a test double overrides it.
    virtual ara::core::Future<HandleMessageOutput> CallHandleMessage(
        std::uint8_t sid, const std::vector<std::uint8_t>& requestData);

private:
    class Remote;

    HandleType handle_;
    std::unique_ptr<Remote> remote_;
};

}  // namespace ac::dm::genericuds::proxy

#endif  // AC_DM_GENERICUDS_GENERICUDS_PROXY_HPP
