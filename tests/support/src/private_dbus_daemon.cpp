#include "test_support/private_dbus_daemon.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace kelvane::testing {
namespace {

bool SocketAccepts(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

PrivateDbusDaemon::PrivateDbusDaemon() {
    address_ = "unix:path=" + directory_.File("bus");
    config_ = directory_.Write("bus.conf", R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
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
    ::setenv("KELVANE_DBUS_ADDRESS", address_.c_str(), 1);
}

PrivateDbusDaemon::~PrivateDbusDaemon() {
    ::unsetenv("KELVANE_DBUS_ADDRESS");
    Stop();
}

void PrivateDbusDaemon::Start() {
    if (daemon_) {
        return;
    }
    const std::string socketPath = directory_.File("bus");
    ::unlink(socketPath.c_str());
    daemon_ = std::make_unique<ChildProcess>(
        ChildProcess::Options{{"dbus-daemon", "--config-file=" + config_, "--nofork", "--nosyslog"},
                              {},
                              directory_.File("dbus-daemon.log")});
    if (!WaitUntil([&] { return SocketAccepts(socketPath); }, std::chrono::seconds(10))) {
        throw std::runtime_error("PrivateDbusDaemon: dbus-daemon did not come up on " + address_ +
                                 ": " + ReadFile(directory_.File("dbus-daemon.log")));
    }
}

void PrivateDbusDaemon::Stop() {
    if (daemon_) {
        daemon_->Stop();
        daemon_.reset();
    }
}

}  // namespace kelvane::testing
