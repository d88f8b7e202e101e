#ifndef VI_CONNECTOR_TLS_PUMP_HPP
#define VI_CONNECTOR_TLS_PUMP_HPP

#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "openssl_handles.hpp"
#include "unique_fd/unique_fd.hpp"

namespace vi_connector {

/// Carries established TLS connections between their TCP socket and the local
/// end of a socketpair whose other end the client holds: one poll() thread for
/// all of them, at most kBufferBytes waiting in each direction.
class TlsPump {
public:
    static constexpr std::size_t kBufferBytes = 16 * 1024;

    TlsPump();
    ~TlsPump();
    TlsPump(const TlsPump&) = delete;
    TlsPump& operator=(const TlsPump&) = delete;

    /// Takes `ssl` (handshake done, on non-blocking `netFd`) and both
    /// descriptors. False when the pump cannot take them; the caller keeps them then.
    bool Add(SslPtr& ssl, unique_fd::UniqueFd& netFd, unique_fd::UniqueFd& localFd,
             std::string peer);

private:
    struct Channel;
    void Run();
    void Wake();

    mutable std::mutex mutex_;
    std::list<Channel> added_;  // handed over, not yet taken by the thread; under mutex_
    std::size_t count_ = 0;     // under mutex_
    bool stopping_ = false;     // under mutex_
    unique_fd::UniqueFd wakeRead_;
    unique_fd::UniqueFd wakeWrite_;
    std::thread thread_;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_TLS_PUMP_HPP
