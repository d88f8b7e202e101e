#ifndef ARA_COM_TYPES_HPP
#define ARA_COM_TYPES_HPP

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace ara::com {

namespace internal {
class Runtime;
}

/// One instance of a service found on the bus: where to reach it.
class ServiceHandle {
public:
    ServiceHandle(std::string busAddress, std::string busName, std::string objectPath,
                  std::string owner = {})
        : busAddress_(std::move(busAddress))
        , busName_(std::move(busName))
        , objectPath_(std::move(objectPath))
        , owner_(std::move(owner)) {}

    /// The bus the instance was found on ("unix:path=..." or "system").
    const std::string& BusAddress() const noexcept { return busAddress_; }
    const std::string& BusName() const noexcept { return busName_; }
    const std::string& ObjectPath() const noexcept { return objectPath_; }

    bool operator==(const ServiceHandle& other) const noexcept {
        return std::tie(busAddress_, busName_, objectPath_, owner_) ==
               std::tie(other.busAddress_, other.busName_, other.objectPath_, other.owner_);
    }
    bool operator!=(const ServiceHandle& other) const noexcept { return !(*this == other); }

private:
    std::string busAddress_;
    std::string busName_;
    std::string objectPath_;
    // The unique connection that owned BusName() when the instance was found: a
    // restarted service is another instance.
    std::string owner_;
};

template <typename HandleType>
using ServiceHandleContainer = std::vector<HandleType>;

/// Identifies one StartFindService() search until StopFindService(). Copies
/// keep the binding's runtime alive.
class FindServiceHandle {
public:
    FindServiceHandle() = default;

    std::uint64_t Id() const noexcept { return id_; }
    bool operator==(const FindServiceHandle& other) const noexcept { return id_ == other.id_; }
    bool operator!=(const FindServiceHandle& other) const noexcept { return id_ != other.id_; }
    bool operator<(const FindServiceHandle& other) const noexcept { return id_ < other.id_; }

private:
    friend class internal::Runtime;
    FindServiceHandle(std::uint64_t id, std::shared_ptr<internal::Runtime> runtime)
        : id_(id), runtime_(std::move(runtime)) {}

    std::uint64_t id_ = 0;
    std::shared_ptr<internal::Runtime> runtime_;
};

/// Called with the instances found, first when some are found and then again
/// on every change (an empty container when the last one went away). Runs on
/// the binding's thread.
template <typename HandleType>
using FindServiceHandler =
    std::function<void(ServiceHandleContainer<HandleType>, FindServiceHandle)>;

}  // namespace ara::com

#endif  // ARA_COM_TYPES_HPP
