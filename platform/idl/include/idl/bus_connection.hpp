#ifndef IDL_BUS_CONNECTION_HPP
#define IDL_BUS_CONNECTION_HPP

#include <sdbus-c++/Error.h>
#include <sdbus-c++/IConnection.h>

#include <memory>
#include <string>

namespace idl {

/// The bus the vehicle services live on: KELVANE_DBUS_ADDRESS when set, else
/// the system bus. DBUS_SESSION_BUS_ADDRESS is ignored on purpose: a stray
/// variable must not move us onto a bus where anyone may own the names.
std::string BusAddress();

/// A new connection to BusAddress(). Throws sdbus::Error when the bus cannot be reached.
std::unique_ptr<sdbus::IConnection> OpenBusConnection();

/// A new connection to `address`, as BusAddress() gives it ("system" or a D-Bus
/// address). Throws sdbus::Error when the bus cannot be reached.
std::unique_ptr<sdbus::IConnection> OpenBusConnection(const std::string& address);

}  // namespace idl

#endif  // IDL_BUS_CONNECTION_HPP
