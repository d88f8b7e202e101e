#include "tcp_connect.hpp"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <utility>

#include "csc_logging/csc_logging.hpp"
#include "poll_deadline.hpp"
#include "unique_fd/unique_fd.hpp"

namespace vi_connector {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kResolveFailed = 1;
constexpr std::uint32_t kConnectFailed = 2;
constexpr std::uint32_t kTimedOut = 3;

struct AddrInfoDeleter {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

// 0 and the connected descriptor, or an errno value and none.
int ConnectOne(const addrinfo& address, Clock::time_point deadline, unique_fd::UniqueFd& fdOut) {
    unique_fd::UniqueFd fd(::socket(address.ai_family,
                                    address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                    address.ai_protocol));
    if (!fd) {
        return errno;
    }
    int error = 0;
    if (::connect(fd.Get(), address.ai_addr, address.ai_addrlen) != 0) {
        error = errno;
        if (error == EINPROGRESS) {
            error = ETIMEDOUT;
            for (;;) {
                pollfd entry{fd.Get(), POLLOUT, 0};
                const int ready = ::poll(&entry, 1, RemainingMs(deadline));
                if (ready < 0 && errno == EINTR) {
                    continue;
                }
                if (ready > 0) {
                    socklen_t length = sizeof(error);
                    if (::getsockopt(fd.Get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
                        error = errno;
                    }
                } else if (ready < 0) {
                    error = errno;
                }
                break;
            }
        }
    }
    // Callers expect an ordinary blocking descriptor.
    if (error == 0) {
        const int flags = ::fcntl(fd.Get(), F_GETFL);
        if (flags < 0 || ::fcntl(fd.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
            error = errno;
        }
    }
    if (error == 0) {
        fdOut = std::move(fd);
    }
    return error;
}

}  // namespace

SocketResult TcpConnect(const std::string& host, std::uint16_t port, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);

    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    const int resolved = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
    if (resolved != 0 || found == nullptr) {
        CSCLogging::Warning(CSCLogEntry() << "VIConnector: cannot resolve '" << host
                                          << "': " << ::gai_strerror(resolved));
        return {kResolveFailed, -1};
    }
    const std::unique_ptr<addrinfo, AddrInfoDeleter> addresses(found);

    int lastError = ETIMEDOUT;
    for (const addrinfo* address = addresses.get(); address != nullptr;
         address = address->ai_next) {
        if (RemainingMs(deadline) == 0) {
            lastError = ETIMEDOUT;
            break;
        }
        unique_fd::UniqueFd fd;
        lastError = ConnectOne(*address, deadline, fd);
        if (lastError == 0) {
            return {0, fd.Release()};
        }
    }
    CSCLogging::Warning(CSCLogEntry() << "VIConnector: cannot connect to " << host << ":" << port
                                      << ": " << std::strerror(lastError));
    return {lastError == ETIMEDOUT ? kTimedOut : kConnectFailed, -1};
}

}  // namespace vi_connector
