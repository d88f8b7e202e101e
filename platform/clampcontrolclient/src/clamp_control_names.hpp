#ifndef CLAMPCONTROLCLIENT_CLAMP_CONTROL_NAMES_HPP
#define CLAMPCONTROLCLIENT_CLAMP_CONTROL_NAMES_HPP

// Where the clamp control service lives on the bus (platform/idl/clamp_control.xml).
namespace clampcontrolclient::names {

constexpr const char* kBusName = "clampcontrol.ClampControl";
constexpr const char* kObjectPath = "/clampcontrol/ClampControl";

constexpr const char* kDbusName = "org.freedesktop.DBus";
constexpr const char* kDbusPath = "/org/freedesktop/DBus";
constexpr const char* kDbusInterface = "org.freedesktop.DBus";

}  // namespace clampcontrolclient::names

#endif  // CLAMPCONTROLCLIENT_CLAMP_CONTROL_NAMES_HPP
