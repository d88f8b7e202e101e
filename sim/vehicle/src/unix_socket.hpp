#ifndef VEHICLE_SIM_UNIX_SOCKET_HPP
#define VEHICLE_SIM_UNIX_SOCKET_HPP

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

namespace vehicle_sim {

/// Fills `address` for `path`; false when the path is too long for a unix socket.
inline bool UnixAddress(const std::string& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_UNIX_SOCKET_HPP
