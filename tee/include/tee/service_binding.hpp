#ifndef TEE_SERVICE_BINDING_HPP
#define TEE_SERVICE_BINDING_HPP

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "ara/com/types.hpp"
#include "ara/core/instance_specifier.hpp"

namespace qervo::tee {

/// How an accessor finds its service and makes a proxy for it. AraCom() is
/// the real thing; tests hand in functions that drive availability themselves
/// and return fake proxies.
template <typename Proxy>
struct ServiceBinding {
    using HandleType = typename Proxy::HandleType;

    std::function<ara::com::FindServiceHandle(ara::com::FindServiceHandler<HandleType>)>
        startFindService;
    std::function<void(ara::com::FindServiceHandle)> stopFindService;
    std::function<std::shared_ptr<Proxy>(const HandleType&)> createProxy;

    static ServiceBinding AraCom(std::string instance) {
        return {[instance = std::move(instance)](ara::com::FindServiceHandler<HandleType> handler) {
                    return Proxy::StartFindService(std::move(handler),
                                                   ara::core::InstanceSpecifier(instance));
                },
                [](ara::com::FindServiceHandle handle) { Proxy::StopFindService(handle); },
                [](const HandleType& handle) { return std::make_shared<Proxy>(handle); }};
    }
};

}  // namespace qervo::tee

#endif  // TEE_SERVICE_BINDING_HPP
