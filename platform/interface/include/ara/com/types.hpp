#ifndef ARA_COM_TYPES_HPP
#define ARA_COM_TYPES_HPP

#include <functional>
#include <vector>

namespace ara::com {

/// One instance of a service found by a search.
class ServiceHandle {
public:
    bool operator==(const ServiceHandle& other) const noexcept;
    bool operator!=(const ServiceHandle& other) const noexcept { return !(*this == other); }
};

template <typename HandleType>
using ServiceHandleContainer = std::vector<HandleType>;

/// Identifies one StartFindService() search until StopFindService().
class FindServiceHandle {
public:
    bool operator==(const FindServiceHandle& other) const noexcept;
    bool operator!=(const FindServiceHandle& other) const noexcept { return !(*this == other); }
};

template <typename HandleType>
using FindServiceHandler =
    std::function<void(ServiceHandleContainer<HandleType>, FindServiceHandle)>;

}  // namespace ara::com

#endif  // ARA_COM_TYPES_HPP
