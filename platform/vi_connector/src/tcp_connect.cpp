#include "tcp_connect.hpp"

namespace vi_connector {

SocketResult TcpConnect(const std::string& /*host*/, std::uint16_t /*port*/, int /*timeoutMs*/) {
    return {1, -1};
}

}  // namespace vi_connector
