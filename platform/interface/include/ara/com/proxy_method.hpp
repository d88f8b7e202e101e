#ifndef ARA_COM_PROXY_METHOD_HPP
#define ARA_COM_PROXY_METHOD_HPP

#include "ara/core/future.hpp"

namespace ara::com {

/// One method of a proxy, callable like a function: `proxy.GetPssHash()`
/// returns the future of the call. It forwards to a virtual member of the
/// proxy, so a test double derived from the proxy replaces the remote call.
template <typename Proxy, typename Output, typename... Args>
class ProxyMethod {
public:
    using Implementation = ara::core::Future<Output> (Proxy::*)(Args...);

    ProxyMethod(Proxy& proxy, Implementation implementation)
        : proxy_(proxy), implementation_(implementation) {}
    ProxyMethod(const ProxyMethod&) = delete;
    ProxyMethod& operator=(const ProxyMethod&) = delete;

    ara::core::Future<Output> operator()(Args... args) const {
        return (proxy_.*implementation_)(args...);
    }

private:
    Proxy& proxy_;
    Implementation implementation_;
};

}  // namespace ara::com

#endif  // ARA_COM_PROXY_METHOD_HPP
