#include "idl/bus_connection.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

#include "test_support/private_dbus_daemon.hpp"

namespace idl {
namespace {

TEST(BusConnectionTest, KelvaneAddressWinsOverTheSessionBus) {
    kelvane::testing::PrivateDbusDaemon bus;
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);

    EXPECT_EQ(BusAddress(), bus.Address());
    auto connection = OpenBusConnection();
    EXPECT_FALSE(connection->getUniqueName().empty());
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

TEST(BusConnectionTest, UnreachableBusIsAnError) {
    ::setenv("KELVANE_DBUS_ADDRESS", "unix:path=/nonexistent/bus", 1);

    EXPECT_THROW(OpenBusConnection(), sdbus::Error);
    ::unsetenv("KELVANE_DBUS_ADDRESS");
}

}  // namespace
}  // namespace idl
