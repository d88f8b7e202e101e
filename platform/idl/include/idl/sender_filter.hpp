#ifndef IDL_SENDER_FILTER_HPP
#define IDL_SENDER_FILTER_HPP

#include <sdbus-c++/Message.h>

#include <chrono>
#include <string>

namespace idl {

/// The bus daemon's own name. No client can own it, so a message whose
/// sender reads so comes from the daemon.
inline constexpr const char* kBusDaemonName = "org.freedesktop.DBus";

/// The bus delivers a signal that names us as its destination whoever sent
/// it, match rules or not. A handler therefore accepts a signal only from the
/// sender that may send it: the daemon for NameOwnerChanged, the current
/// unique owner of a service's name for the service's own signals. Drops are
/// logged at debug level, at most once a second, so a flood costs no log.
/// Not thread-safe: one per bus loop.
class SenderFilter {
public:
    /// `who` prefixes the log line ("ClampControlClient").
    explicit SenderFilter(std::string who);

    /// True when `message` was sent by `expected` (a unique name, or
    /// kBusDaemonName); an empty `expected` (no owner now) accepts nothing.
    bool Accept(const sdbus::Message& message, const std::string& expected);

private:
    std::string who_;
    std::chrono::steady_clock::time_point nextLog_{};
};

}  // namespace idl

#endif  // IDL_SENDER_FILTER_HPP
