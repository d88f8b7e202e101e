#ifndef TEST_SUPPORT_LOOPBACK_HPP
#define TEST_SUPPORT_LOOPBACK_HPP

#include <cstdint>

namespace kelvane::testing {

/// A listening, close-on-exec TCP socket on 127.0.0.1 (or ::1), its port in `port`;
/// throws when there is none.
int ListenOnLoopback(std::uint16_t& port, bool ipv6 = false);
/// A close-on-exec TCP socket connected to `port` on 127.0.0.1 (or ::1); -1 when refused.
int ConnectOnLoopback(std::uint16_t port, bool ipv6 = false);

/// A TCP port on 127.0.0.1 that was free a moment ago.
std::uint16_t FreeTcpPort();

bool AcceptsConnections(std::uint16_t port);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_LOOPBACK_HPP
