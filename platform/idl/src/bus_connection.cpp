#include "idl/bus_connection.hpp"

#include <cstdlib>

namespace idl {
namespace {

constexpr const char* kSystemBus = "system";

const char* Environment(const char* name) {
    const char* value = std::getenv(name);
    return (value != nullptr && *value != '\0') ? value : nullptr;
}

}  // namespace

std::string BusAddress() {
    if (const char* address = Environment("KELVANE_DBUS_ADDRESS")) {
        return address;
    }
    return kSystemBus;
}

std::unique_ptr<sdbus::IConnection> OpenBusConnection() {
    return OpenBusConnection(BusAddress());
}

std::unique_ptr<sdbus::IConnection> OpenBusConnection(const std::string& address) {
    if (address == kSystemBus) {
        return sdbus::createSystemBusConnection();
    }
    return sdbus::createSessionBusConnectionWithAddress(address);
}

}  // namespace idl
