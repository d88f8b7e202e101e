#ifndef TEST_SUPPORT_LOOPBACK_HPP
#define TEST_SUPPORT_LOOPBACK_HPP

#include <cstdint>

namespace kelvane::testing {

/// A TCP port on 127.0.0.1 that was free a moment ago.
std::uint16_t FreeTcpPort();

bool AcceptsConnections(std::uint16_t port);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_LOOPBACK_HPP
