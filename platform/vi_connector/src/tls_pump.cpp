#include "tls_pump.hpp"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <vector>

#include "csc_logging/csc_logging.hpp"
#include "sigpipe_block.hpp"
#include "wiped_string.hpp"

namespace vi_connector {
namespace {

using unique_fd::UniqueFd;
using Clock = std::chrono::steady_clock;

// Longer than any wait of the client's on a backend answer; bounds a peer
// (or client) that stops moving bytes without closing.
constexpr auto kIdleLimit = std::chrono::seconds(120);

}  // namespace

struct TlsPump::Channel {
    SslPtr ssl;
    UniqueFd localFd;
    UniqueFd netFd;  // closed before localFd
    std::string peer;
    std::string toNet;    // read from the client, not yet taken by SSL_write
    std::string toLocal;  // decrypted, not yet written to the client
    bool localEof = false;
    bool netEof = false;
    bool netWantsWrite = false;  // the last TLS call waits for the socket to drain
    bool done = false;
    Clock::time_point lastMoved = Clock::now();

    ~Channel() {
        // The client's requests carry bearer tokens in plain text.
        Wipe(toNet);
        if (ssl) {
            // close_notify (best effort, the socket is non-blocking); a session
            // not shut down is not resumed later.
            SSL_shutdown(ssl.get());
            ssl.reset();
        }
    }

    // True when any byte moved.
    bool Step() {
        bool moved = false;
        char chunk[kBufferBytes];
        netWantsWrite = false;

        while (!localEof && toNet.size() < kBufferBytes) {
            const ssize_t got = ::read(localFd.Get(), chunk, kBufferBytes - toNet.size());
            if (got > 0) {
                toNet.append(chunk, static_cast<std::size_t>(got));
                OPENSSL_cleanse(chunk, static_cast<std::size_t>(got));
                moved = true;
            } else if (got < 0 && errno == EINTR) {
                continue;
            } else {
                if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                    localEof = true;  // the client closed its descriptor
                }
                break;
            }
        }
        while (!toNet.empty() && !netEof) {
            ERR_clear_error();
            const int sent = SSL_write(ssl.get(), toNet.data(), static_cast<int>(toNet.size()));
            if (sent > 0) {
                toNet.erase(0, static_cast<std::size_t>(sent));
                moved = true;
                continue;
            }
            if (!Wait(SSL_get_error(ssl.get(), sent), "sending")) {
                SigpipeBlock::Discard();
                netEof = true;
            }
            break;
        }
        while (!netEof && toLocal.size() < kBufferBytes) {
            ERR_clear_error();
            const int got =
                SSL_read(ssl.get(), chunk, static_cast<int>(kBufferBytes - toLocal.size()));
            if (got > 0) {
                toLocal.append(chunk, static_cast<std::size_t>(got));
                moved = true;
                continue;
            }
            const int error = SSL_get_error(ssl.get(), got);
            if (error == SSL_ERROR_ZERO_RETURN) {
                netEof = true;  // close_notify
                moved = true;
            } else if (!Wait(error, "receiving")) {
                netEof = true;
                moved = true;
            }
            break;
        }
        while (!toLocal.empty()) {
            const ssize_t put = ::send(localFd.Get(), toLocal.data(), toLocal.size(), MSG_NOSIGNAL);
            if (put > 0) {
                toLocal.erase(0, static_cast<std::size_t>(put));
                moved = true;
            } else if (put < 0 && errno == EINTR) {
                continue;
            } else {
                if (put < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
                    localEof = true;
                    toLocal.clear();
                }
                break;
            }
        }
        // The backend is done and the client has everything: closing our end
        // gives the client end of file after the bytes already queued to it.
        // The client closing its end ends the connection too.
        const auto now = Clock::now();
        if (moved) {
            lastMoved = now;
        } else if (now - lastMoved >= kIdleLimit) {
            csc_logging::CSCLogging::Warning("VIConnector: TLS connection to " + peer +
                                             " idle too long, closed");
            localEof = netEof = true;
            toLocal.clear();
        }
        done = (netEof && toLocal.empty()) || (localEof && (toNet.empty() || netEof));
        return moved;
    }

    // False when the connection is over.
    bool Wait(int error, const char* what) {
        if (error == SSL_ERROR_WANT_READ) {
            return true;
        }
        if (error == SSL_ERROR_WANT_WRITE) {
            netWantsWrite = true;
            return true;
        }
        const unsigned long reason = ERR_peek_error();
        // A server that closes without close_notify after its response is common.
        if (ERR_GET_REASON(reason) != SSL_R_UNEXPECTED_EOF_WHILE_READING &&
            error != SSL_ERROR_SYSCALL) {
            char text[256];
            ERR_error_string_n(reason, text, sizeof(text));
            csc_logging::CSCLogging::Warning("VIConnector: TLS connection to " + peer +
                                             " failed while " + what + ": " + text);
        }
        ERR_clear_error();
        return false;
    }

    void Interest(pollfd& local, pollfd& net) const {
        local = {localFd.Get(), 0, 0};
        net = {netFd.Get(), 0, 0};
        if (!localEof && toNet.size() < kBufferBytes) {
            local.events |= POLLIN;
        }
        if (!toLocal.empty()) {
            local.events |= POLLOUT;
        }
        if (!netEof && (toLocal.size() < kBufferBytes || !toNet.empty())) {
            net.events |= POLLIN;
        }
        if (netWantsWrite) {
            net.events |= POLLOUT;
        }
        // A hang-up is reported whatever was asked for: while a direction is
        // stalled its descriptor stays out of poll() rather than spin on it.
        if (local.events == 0) {
            local.fd = -1;
        }
        if (net.events == 0) {
            net.fd = -1;
        }
    }
};

TlsPump::TlsPump() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        wakeRead_.Reset(fds[0]);
        wakeWrite_.Reset(fds[1]);
        thread_ = std::thread([this] { Run(); });
    } else {
        csc_logging::CSCLogging::Error("VIConnector: no pipe for the TLS pump");
    }
}

TlsPump::~TlsPump() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    Wake();
    if (thread_.joinable()) {
        thread_.join();
    }
    {
        const SigpipeBlock noSigpipe;  // their close_notify
        added_.clear();
    }
}

bool TlsPump::Add(SslPtr& ssl, UniqueFd& netFd, UniqueFd& localFd, std::string peer) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ || !thread_.joinable()) {
            return false;
        }
        added_.emplace_back();
        auto& channel = added_.back();
        channel.ssl = std::move(ssl);
        channel.netFd = std::move(netFd);
        channel.localFd = std::move(localFd);
        channel.peer = std::move(peer);
        // Never grows, so no buffer holding request bytes is freed unwiped.
        channel.toNet.reserve(kBufferBytes);
        ++count_;
    }
    Wake();
    return true;
}

void TlsPump::Wake() {
    if (wakeWrite_) {
        const char one = 1;
        [[maybe_unused]] const ssize_t ignored = ::write(wakeWrite_.Get(), &one, 1);
    }
}

void TlsPump::Run() {
    const SigpipeBlock noSigpipe;
    std::list<Channel> channels;
    std::vector<pollfd> fds;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) {
                break;
            }
            channels.splice(channels.end(), added_);
        }
        // Move bytes until nothing moves, then sleep until a descriptor is ready.
        for (auto it = channels.begin(); it != channels.end();) {
            while (it->Step() && !it->done) {
            }
            if (it->done) {
                it = channels.erase(it);
                std::lock_guard<std::mutex> lock(mutex_);
                --count_;
            } else {
                ++it;
            }
        }
        fds.assign(1 + 2 * channels.size(), pollfd{});
        fds[0] = {wakeRead_.Get(), POLLIN, 0};
        std::size_t i = 1;
        auto wakeAt = Clock::time_point::max();
        for (const auto& channel : channels) {
            channel.Interest(fds[i], fds[i + 1]);
            wakeAt = std::min(wakeAt, channel.lastMoved + kIdleLimit);
            i += 2;
        }
        int timeoutMs = -1;
        if (!channels.empty()) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(wakeAt - Clock::now());
            timeoutMs = static_cast<int>(std::max<long long>(left.count() + 1, 0));
        }
        if (::poll(fds.data(), fds.size(), timeoutMs) < 0 && errno != EINTR) {
            csc_logging::CSCLogging::Error("VIConnector: the TLS pump cannot poll");
            break;
        }
        char drain[64];
        while (::read(wakeRead_.Get(), drain, sizeof(drain)) > 0) {
        }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    count_ -= channels.size();
}

}  // namespace vi_connector
