#ifndef VI_CONNECTOR_NETLINK_ROUTE_SOURCE_HPP
#define VI_CONNECTOR_NETLINK_ROUTE_SOURCE_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "route_source_if.hpp"
#include "unique_fd/unique_fd.hpp"

namespace vi_connector {

/// The kernel's routes and links through rtnetlink: link, address and route
/// events from the multicast groups, route lookups (RTM_GETROUTE) and link
/// state (RTM_GETLINK) on a socket of their own.
///
/// Where no netlink socket can be had (a sandbox that forbids AF_NETLINK),
/// it says so once, never reports a change and gives every address the
/// same stand-in route, so that probing alone decides.
class NetlinkRouteSource final : public RouteSourceIf {
public:
    NetlinkRouteSource();
    NetlinkRouteSource(const NetlinkRouteSource&) = delete;
    NetlinkRouteSource& operator=(const NetlinkRouteSource&) = delete;

    Wakeup Wait(std::chrono::steady_clock::time_point deadline, int wakeFd) override;
    std::string RouteTo(const std::string& address) override;

private:
    // The answer of the kernel to one request; empty on an error or no answer.
    std::vector<char> Ask(const void* request, std::size_t size);
    // "dev NAME" for a link that is up and running, else empty.
    std::string LinkIfUp(int index);
    bool DrainEvents();

    unique_fd::UniqueFd events_;
    unique_fd::UniqueFd queries_;
    std::uint32_t sequence_ = 0;
    std::vector<char> buffer_;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_NETLINK_ROUTE_SOURCE_HPP
