#ifndef TEST_SUPPORT_PRIVATE_DBUS_DAEMON_HPP
#define TEST_SUPPORT_PRIVATE_DBUS_DAEMON_HPP

#include <memory>
#include <string>

#include "test_support/child_process.hpp"
#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane::testing {

/// A dbus-daemon of the test's own on a unix socket; while it lives, KELVANE_DBUS_ADDRESS
/// points at it, so code under test that opens "the bus" gets this one.
class PrivateDbusDaemon {
public:
    PrivateDbusDaemon();

    const std::string& Address() const { return address_; }

    /// The bus goes away (every connection is lost) ...
    void Stop() { daemon_.reset(); }
    /// ... and comes back on the same address.
    void Start();

private:
    TemporaryDirectory directory_;
    std::string address_;
    ScopedEnvironment environment_;
    std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_PRIVATE_DBUS_DAEMON_HPP
