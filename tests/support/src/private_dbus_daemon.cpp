#include "test_support/private_dbus_daemon.hpp"

#include <unistd.h>

#include <stdexcept>

namespace kelvane::testing {

PrivateDbusDaemon::PrivateDbusDaemon()
    : address_("unix:path=" + directory_.File("bus"))
    , environment_("KELVANE_DBUS_ADDRESS", address_) {
    directory_.Write("bus.conf", R"(<busconfig>
  <type>session</type>
  <listen>)" + address_ + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)");
    Start();
}

void PrivateDbusDaemon::Start() {
    ::unlink(directory_.File("bus").c_str());
    // The daemon prints its address once it accepts connections.
    const std::string log = directory_.Write("dbus-daemon.log", "");
    daemon_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{{"dbus-daemon", "--config-file=" + directory_.File("bus.conf"),
                               "--nofork", "--nosyslog", "--print-address"},
                              {},
                              log});
    if (!WaitUntil([&] { return ReadFile(log).find(address_) != std::string::npos; },
                   std::chrono::seconds(10))) {
        throw std::runtime_error("PrivateDbusDaemon: no dbus-daemon on " + address_ + ": " +
                                 ReadFile(log));
    }
}

}  // namespace kelvane::testing
