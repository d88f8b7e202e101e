#ifndef TEE_SERVICE_TRACKER_HPP
#define TEE_SERVICE_TRACKER_HPP

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "ara/com/types.hpp"
#include "tee/service_binding.hpp"

namespace qervo::tee {

/// Logs "<name> service found" or "<name> service stopped".
void LogServiceAvailability(const std::string& name, bool found);

/// Follows one service through ara::com: keeps a proxy for its instance while
/// it is offered, none while it is not. Calls copy the proxy, so one that
/// vanishes meanwhile stays valid for the call under way.
template <typename Proxy>
class ServiceTracker {
public:
    /// `name` is how the log lines call the service.
    ServiceTracker(std::string name, ServiceBinding<Proxy> binding)
        : name_(std::move(name)), binding_(std::move(binding)) {}
    /// Stops the search; its handler is not running once this returns.
    ~ServiceTracker() { Stop(); }
    ServiceTracker(const ServiceTracker&) = delete;
    ServiceTracker& operator=(const ServiceTracker&) = delete;

    /// Starts the search, anew if one runs.
    void Start() {
        Stop();
        findServiceHandle_ = binding_.startFindService(
            [this](ara::com::ServiceHandleContainer<typename Proxy::HandleType> handles,
                   ara::com::FindServiceHandle) { OnAvailability(handles); });
    }

    void Stop() {
        if (findServiceHandle_) {
            binding_.stopFindService(*std::exchange(findServiceHandle_, std::nullopt));
        }
    }

    std::shared_ptr<Proxy> Current() const { return std::atomic_load(&proxy_); }
    bool IsReady() const { return Current() != nullptr; }

private:
    void OnAvailability(
        const ara::com::ServiceHandleContainer<typename Proxy::HandleType>& handles) {
        if (handles.empty()) {
            LogServiceAvailability(name_, false);
            std::atomic_store(&proxy_, std::shared_ptr<Proxy>());
            return;
        }
        std::atomic_store(&proxy_, binding_.createProxy(handles.front()));
        LogServiceAvailability(name_, true);
    }

    std::string name_;
    ServiceBinding<Proxy> binding_;
    // Swapped by the availability handler on the ara::com thread, copied by calls.
    std::shared_ptr<Proxy> proxy_;
    std::optional<ara::com::FindServiceHandle> findServiceHandle_;
};

}  // namespace qervo::tee

#endif  // TEE_SERVICE_TRACKER_HPP
