#ifndef VI_CONNECTOR_ROUTE_SOURCE_IF_HPP
#define VI_CONNECTOR_ROUTE_SOURCE_IF_HPP

#include <chrono>
#include <string>

namespace vi_connector {

/// What the kernel knows about the way to the backend: the route it would
/// take to an address, and word when links, addresses or routes change.
class RouteSourceIf {
public:
    enum class Wakeup { kDeadline, kChange, kWoken };

    virtual ~RouteSourceIf() = default;

    /// Waits until the kernel reports a change (consumed here), `deadline`
    /// passes or `wakeFd` becomes readable (left as it is).
    virtual Wakeup Wait(std::chrono::steady_clock::time_point deadline, int wakeFd) = 0;

    /// The route to a numeric IPv4 or IPv6 address as one line (link and
    /// gateway), empty when there is none or its link is down.
    virtual std::string RouteTo(const std::string& address) = 0;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_ROUTE_SOURCE_IF_HPP
