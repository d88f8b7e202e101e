#include "broker_relay.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "sigpipe_block.hpp"
#include "tls_common.hpp"

namespace vi_connector {
namespace {

using unique_fd::UniqueFd;

using Clock = std::chrono::steady_clock;

// Each direction holds at most this much in flight (and the gate a packet's start).
constexpr std::size_t kBufferBytes = 16 * 1024;
constexpr int kAcceptTimeoutMs = 1000;
// A stop passes on what the client wrote last in this many rounds without waiting.
constexpr int kFinalRounds = 4;

std::int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
        .count();
}

struct AddrInfoDeleter {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

}  // namespace

std::unique_ptr<BrokerRelay> BrokerRelay::Listen(std::string& error) {
    std::unique_ptr<BrokerRelay> relay(new BrokerRelay());
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp == '/' ? tmp : "/tmp") + "/kelvane-mqtt-XXXXXX";
    // mkdtemp makes it 0700: no other user reaches the socket inside.
    if (::mkdtemp(&pattern[0]) == nullptr) {
        error = "cannot make a private directory like " + pattern + ": " + std::strerror(errno);
        return nullptr;
    }
    relay->directory_ = pattern;
    relay->socketPath_ = pattern + "/broker";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (relay->socketPath_.size() >= sizeof(address.sun_path)) {
        error = "the socket path " + relay->socketPath_ + " is too long";
        return nullptr;
    }
    std::memcpy(address.sun_path, relay->socketPath_.c_str(), relay->socketPath_.size() + 1);
    int wake[2];
    relay->listenFd_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!relay->listenFd_ ||
        ::bind(relay->listenFd_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) !=
            0 ||
        ::listen(relay->listenFd_.Get(), 4) != 0 || ::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        error = "cannot listen on " + relay->socketPath_ + ": " + std::strerror(errno);
        return nullptr;
    }
    relay->wakeRead_.Reset(wake[0]);
    relay->wakeWrite_.Reset(wake[1]);
    return relay;
}

BrokerRelay::~BrokerRelay() {
    Stop();
    RemoveSocket();
}

void BrokerRelay::RemoveSocket() {
    listenFd_.Reset();
    if (!directory_.empty()) {
        ::unlink(socketPath_.c_str());
        ::rmdir(directory_.c_str());
        directory_.clear();
    }
}

bool BrokerRelay::Start(const std::string& host, std::uint16_t port, std::shared_ptr<SSL_CTX> tls,
                        int connectTimeoutMs, std::string& error) {
    const std::int64_t acceptBy = NowMs() + kAcceptTimeoutMs;
    while (!clientFd_) {
        const auto left = acceptBy - NowMs();
        if (left <= 0 || WaitFor(listenFd_.Get(), POLLIN, static_cast<int>(left)) != 1) {
            error = "libmosquitto did not connect to " + socketPath_;
            RemoveSocket();
            return false;
        }
        UniqueFd fd(::accept4(listenFd_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        ucred peer{};
        socklen_t length = sizeof(peer);
        if (fd && ::getsockopt(fd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
            peer.pid == ::getpid()) {
            clientFd_ = std::move(fd);
        }  // else not ours: closed
    }
    RemoveSocket();
    host_ = host;
    port_ = port;
    tls_ = std::move(tls);
    deadlineMs_ = NowMs() + connectTimeoutMs;
    thread_ = std::thread([this] { Run(); });
    return true;
}

void BrokerRelay::Stop() {
    if (thread_.joinable()) {
        const char stop = 's';
        [[maybe_unused]] const ssize_t ignored = ::write(wakeWrite_.Get(), &stop, 1);
        thread_.join();
    }
}

bool BrokerRelay::Fail(const std::string& problem) {
    if (failure_.empty()) {
        failure_ = problem;
    }
    return false;
}

int BrokerRelay::WaitFor(int fd, short events, int timeoutMs) const {
    for (;;) {
        pollfd entries[2] = {{wakeRead_.Get(), POLLIN, 0}, {fd, events, 0}};
        const int ready = ::poll(entries, 2, timeoutMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || entries[0].revents != 0) {
            return -1;
        }
        return ready > 0 ? 1 : 0;
    }
}

void BrokerRelay::Run() {
    const SigpipeBlock noSigpipe;
    if (ConnectToBroker() && (!tls_ || Handshake())) {
        Pump();
    }
    disconnect_ = gate_.BrokerDisconnect();
    if (ssl_) {
        SSL_shutdown(ssl_.get());  // close_notify, best effort
        ssl_.reset();
    }
    // libmosquitto sees the end of its connection now, after the reason is known.
    brokerFd_.Reset();
    clientFd_.Reset();
}

bool BrokerRelay::ConnectToBroker() {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int resolved =
        ::getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &found);
    if (resolved != 0 || found == nullptr) {
        return Fail("cannot resolve '" + host_ + "': " + ::gai_strerror(resolved));
    }
    const std::unique_ptr<addrinfo, AddrInfoDeleter> addresses(found);
    int lastError = ETIMEDOUT;
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        brokerFd_.Reset(::socket(address->ai_family,
                                 address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                 address->ai_protocol));
        if (!brokerFd_) {
            lastError = errno;
            continue;
        }
        lastError = 0;
        if (::connect(brokerFd_.Get(), address->ai_addr, address->ai_addrlen) != 0) {
            lastError = errno;
        }
        if (lastError == EINPROGRESS) {
            const auto left = deadlineMs_ - NowMs();
            const int ready =
                left > 0 ? WaitFor(brokerFd_.Get(), POLLOUT, static_cast<int>(left)) : 0;
            if (ready < 0) {
                return Fail("stopped");
            }
            socklen_t length = sizeof(lastError);
            if (ready == 0) {
                lastError = ETIMEDOUT;
            } else if (::getsockopt(brokerFd_.Get(), SOL_SOCKET, SO_ERROR, &lastError, &length) !=
                       0) {
                lastError = errno;
            }
        }
        if (lastError == 0) {
            // MQTT packets are small and each may wait for an answer.
            const int noDelay = 1;
            ::setsockopt(brokerFd_.Get(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
            return true;
        }
        brokerFd_.Reset();
    }
    return Fail(std::strerror(lastError));
}

bool BrokerRelay::Handshake() {
    ssl_.reset(SSL_new(tls_.get()));
    if (!ssl_) {
        return Fail("TLS: " + OpenSslError("connection closed"));
    }
    SSL* ssl = ssl_.get();
    SSL_set_fd(ssl, brokerFd_.Get());
    if (!ExpectPeerName(ssl, host_)) {
        return Fail("TLS: cannot expect the name '" + host_ + "': " + OpenSslError());
    }
    for (;;) {
        ERR_clear_error();
        const int done = SSL_connect(ssl);
        if (done == 1) {
            return true;
        }
        const int error = SSL_get_error(ssl, done);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            const auto left = deadlineMs_ - NowMs();
            const int ready =
                left > 0 ? WaitFor(brokerFd_.Get(), error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT,
                                   static_cast<int>(left))
                         : 0;
            if (ready < 0) {
                return Fail("stopped");
            }
            if (ready == 0) {
                return Fail("TLS handshake timed out");
            }
            continue;
        }
        const long verified = SSL_get_verify_result(ssl);
        if (verified != X509_V_OK) {
            return Fail("TLS: " + VerifyReason(verified) + " (" +
                        X509_verify_cert_error_string(verified) + ")");
        }
        return Fail("TLS handshake refused (" + OpenSslError("connection closed") + ")");
    }
}

void BrokerRelay::Pump() {
    SSL* ssl = ssl_.get();
    std::string toBroker;
    std::string toClient;
    bool clientEnded = false;
    bool brokerEnded = false;
    bool brokerWantsWrite = false;  // the last TLS call waits for the socket to drain
    bool stopping = false;
    int finalRounds = kFinalRounds;
    char chunk[kBufferBytes];

    // Bytes moved from the broker: > 0, 0 when none are ready, -1 at the end.
    const auto fromBroker = [&](std::size_t room) -> long {
        if (ssl == nullptr) {
            const ssize_t got = ::recv(brokerFd_.Get(), chunk, room, 0);
            if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                return 0;
            }
            return got > 0 ? got
                           : (Fail(got == 0 ? "the broker closed the connection"
                                            : std::strerror(errno)),
                              -1);
        }
        ERR_clear_error();
        const int got = SSL_read(ssl, chunk, static_cast<int>(room));
        if (got > 0) {
            return got;
        }
        const int error = SSL_get_error(ssl, got);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            brokerWantsWrite = error == SSL_ERROR_WANT_WRITE;
            return 0;
        }
        Fail(error == SSL_ERROR_ZERO_RETURN || error == SSL_ERROR_SYSCALL
                 ? "the broker closed the connection"
                 : "TLS: " + OpenSslError("connection closed"));
        return -1;
    };
    const auto toBrokerSent = [&]() -> long {
        if (ssl == nullptr) {
            const ssize_t put =
                ::send(brokerFd_.Get(), toBroker.data(), toBroker.size(), MSG_NOSIGNAL);
            if (put < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                return 0;
            }
            return put > 0 ? put : (Fail(std::strerror(errno)), -1);
        }
        ERR_clear_error();
        const int put = SSL_write(ssl, toBroker.data(), static_cast<int>(toBroker.size()));
        if (put > 0) {
            return put;
        }
        const int error = SSL_get_error(ssl, put);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            brokerWantsWrite = error == SSL_ERROR_WANT_WRITE;
            return 0;
        }
        Fail("TLS: " + OpenSslError("connection closed"));
        return -1;
    };

    for (;;) {
        bool moved = false;
        brokerWantsWrite = false;
        if (!clientEnded && toBroker.size() < kBufferBytes) {
            const ssize_t got = ::recv(clientFd_.Get(), chunk, kBufferBytes - toBroker.size(), 0);
            if (got > 0) {
                gate_.FromClient(chunk, static_cast<std::size_t>(got), toBroker);
                moved = true;
            } else if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                clientEnded = true;
                moved = true;
            }
        }
        while (!toBroker.empty() && !brokerEnded) {
            const long put = toBrokerSent();
            if (put <= 0) {
                brokerEnded = put < 0;
                break;
            }
            toBroker.erase(0, static_cast<std::size_t>(put));
            moved = true;
        }
        while (!brokerEnded && toClient.size() < kBufferBytes &&
               gate_.PendingBytes() < kBufferBytes && !stopping) {
            const long got = fromBroker(kBufferBytes - toClient.size());
            if (got == 0) {
                break;
            }
            moved = true;
            if (got < 0 ||
                !gate_.FromBroker(chunk, static_cast<std::size_t>(got), toClient, toBroker)) {
                brokerEnded = true;
                Fail(gate_.Failure());
                break;
            }
            if (gate_.BrokerDisconnect()) {
                brokerEnded = true;  // the client gets what came before it, then the end
                Fail("the broker sent DISCONNECT");
                break;
            }
        }
        while (!toClient.empty() && !clientEnded) {
            const ssize_t put =
                ::send(clientFd_.Get(), toClient.data(), toClient.size(), MSG_NOSIGNAL);
            if (put > 0) {
                toClient.erase(0, static_cast<std::size_t>(put));
                moved = true;
                continue;
            }
            if (put < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                clientEnded = true;
            }
            break;
        }
        // The client's end (after its DISCONNECT went out) or the broker's
        // (after the client has everything before it, a DISCONNECT among it)
        // ends the connection.
        if ((clientEnded && (toBroker.empty() || brokerEnded)) ||
            (brokerEnded && (toClient.empty() || clientEnded))) {
            return;
        }
        if (stopping && (!moved || --finalRounds == 0)) {
            return;
        }
        if (moved || stopping) {
            continue;
        }
        pollfd entries[3] = {
            {wakeRead_.Get(), POLLIN, 0}, {clientFd_.Get(), 0, 0}, {brokerFd_.Get(), 0, 0}};
        if (!clientEnded && toBroker.size() < kBufferBytes) {
            entries[1].events |= POLLIN;
        }
        if (!toClient.empty()) {
            entries[1].events |= POLLOUT;
        }
        if (!brokerEnded && toClient.size() < kBufferBytes && gate_.PendingBytes() < kBufferBytes) {
            entries[2].events |= POLLIN;
        }
        if (!toBroker.empty() || brokerWantsWrite) {
            entries[2].events |= POLLOUT;
        }
        // A hang-up is reported whatever was asked for: a stalled direction's
        // descriptor stays out of poll() rather than spin on it.
        for (auto& entry : entries) {
            if (entry.events == 0) {
                entry.fd = -1;
            }
        }
        if (::poll(entries, 3, -1) < 0 && errno != EINTR) {
            Fail(std::string("poll: ") + std::strerror(errno));
            return;
        }
        stopping = entries[0].revents != 0;
    }
}

}  // namespace vi_connector
