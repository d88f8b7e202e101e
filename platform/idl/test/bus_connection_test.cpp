#include "idl/bus_connection.hpp"

#include <gtest/gtest.h>

#include "test_support/private_dbus_daemon.hpp"
#include "test_support/scoped_environment.hpp"

namespace idl {
namespace {

using kelvane::testing::ScopedEnvironment;

TEST(BusConnectionTest, KelvaneAddressWinsOverTheSessionBusAndAnUnreachableOneIsAnError) {
    const ScopedEnvironment session("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");
    {
        kelvane::testing::PrivateDbusDaemon bus;
        EXPECT_EQ(BusAddress(), bus.Address());
        EXPECT_FALSE(OpenBusConnection()->getUniqueName().empty());
    }
    const ScopedEnvironment unreachable("KELVANE_DBUS_ADDRESS", "unix:path=/nonexistent/bus");
    EXPECT_THROW(OpenBusConnection(), sdbus::Error);
}

}  // namespace
}  // namespace idl
