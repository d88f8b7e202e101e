#ifndef VI_CONNECTOR_LOOPBACK_HOST_HPP
#define VI_CONNECTOR_LOOPBACK_HOST_HPP

#include <string>

namespace vi_connector {

/// True for "localhost", 127.0.0.0/8 and ::1 (bracketed or not). Other names
/// are not resolved: they count as remote.
bool IsLoopbackHost(const std::string& host);

/// The host of an "scheme://host[:port][/path]" URL, without IPv6 brackets;
/// empty when there is none.
std::string HostOfUrl(const std::string& url);

/// The scheme of a URL in lower case ("http", "https"); empty without "://".
std::string SchemeOfUrl(const std::string& url);

}  // namespace vi_connector

#endif  // VI_CONNECTOR_LOOPBACK_HOST_HPP
