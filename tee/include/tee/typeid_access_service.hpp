#ifndef TEE_TYPEID_ACCESS_SERVICE_HPP
#define TEE_TYPEID_ACCESS_SERVICE_HPP

#include <cstdint>
#include <string>

#include "tee/service_binding.hpp"
#include "tee/service_tracker.hpp"
#include "tee/typeid_access_service_if.hpp"
#include "tee/zelk_online_update_api.hpp"
#include "zelk/interfaces/typeidaccess/typeidaccess_proxy.hpp"

namespace qervo::tee {

/// Finds the Type-ID access service and reads certificates from it. Never
/// waits for the service (the facade does); calls wait for the answer
/// without a time-out. Other failures of the call (ara::com::ComException)
/// propagate.
class TypeidAccessService : public TypeidAccessServiceIf {
public:
    using Proxy = zelk::interfaces::typeidaccess::proxy::TypeIdAccessProxy;

    /// The numeric type ids the service knows the certificates by.
    static constexpr std::uint16_t kBaseTypeId = 11;
    static constexpr std::uint16_t kRootTypeId = 13;

    explicit TypeidAccessService(ServiceBinding<Proxy> binding = ServiceBinding<Proxy>::AraCom(
                                     zelk::interfaces::typeidaccess::kInstance));
    /// Stops the search; its handler is not running once this returns.
    ~TypeidAccessService() override;
    TypeidAccessService(const TypeidAccessService&) = delete;
    TypeidAccessService& operator=(const TypeidAccessService&) = delete;

    void Initialize() override;
    bool IsReady() const override;
    std::uint8_t zelk_get_certificate(const std::string& typeId, std::string& certificate) override;

private:
    ServiceTracker<Proxy> service_;
};

}  // namespace qervo::tee

#endif  // TEE_TYPEID_ACCESS_SERVICE_HPP
