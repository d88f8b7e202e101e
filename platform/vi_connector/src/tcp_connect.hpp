#ifndef VI_CONNECTOR_TCP_CONNECT_HPP
#define VI_CONNECTOR_TCP_CONNECT_HPP

#include <cstdint>
#include <string>

#include "vi_connector/vi_types.hpp"

namespace vi_connector {

/// Resolves `host` (IPv4 and IPv6) and connects to the first address that
/// answers within `timeoutMs`. Status 0 and a blocking connected descriptor,
/// or a non-zero status and -1.
SocketResult TcpConnect(const std::string& host, std::uint16_t port, int timeoutMs);

}  // namespace vi_connector

#endif  // VI_CONNECTOR_TCP_CONNECT_HPP
