// A slow link in user space (these kernels have no netem): a TCP proxy on
// loopback that holds every new connection for one round-trip time (the TCP
// handshake a real link would take) and then delivers every chunk, and the
// end of each direction, half a round trip after it arrived (or after the
// handshake, whichever is later). Bandwidth is not limited.
//
//   bench_delay_proxy RTT_MS TARGET_PORT PORT_FILE [TRACE_FILE]
//
// Listens on 127.0.0.1 (a free port, written to PORT_FILE once listening) and
// connects each client to 127.0.0.1:TARGET_PORT. TRACE_FILE gets one line per
// chunk: connection, milliseconds since its accept, direction ("up" from the
// client, "down" from the server), bytes ("end" for a direction's end), so
// that a round trip that is not the link's can be found. Runs until SIGTERM.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t stopping = 0;

void Stop(int) {
    stopping = 1;
}

struct Chunk {
    Clock::time_point due;
    std::string bytes;  // empty: the end of the direction
};

struct Direction {
    explicit Direction(const char* directionName) : name(directionName) {}
    const char* name;
    int from = -1;
    int to = -1;
    std::deque<Chunk> queue;
    bool readEnded = false;
    bool delivered = false;  // its end reached the other side
};

struct Link {
    int id = 0;
    Clock::time_point accepted;
    Clock::time_point ready;  // the handshake's round trip is over
    Direction up{"up"};
    Direction down{"down"};
    bool broken = false;
};

FILE* trace = nullptr;
Clock::duration halfRtt;

void Trace(const Link& link, const Direction& direction, const Chunk& chunk) {
    if (trace == nullptr) {
        return;
    }
    const double ms = std::chrono::duration<double, std::milli>(chunk.due - link.accepted).count();
    if (chunk.bytes.empty()) {
        std::fprintf(trace, "%d %.1f %s end\n", link.id, ms, direction.name);
    } else {
        std::fprintf(trace, "%d %.1f %s %zu\n", link.id, ms, direction.name, chunk.bytes.size());
    }
    std::fflush(trace);
}

int Listen(std::uint16_t& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(fd, 64) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

// The proxy is the link, not an end: it must not hold small chunks back.
void Prepare(int fd) {
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

int ConnectTarget(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

void ReadInto(Link& link, Direction& direction, Clock::time_point now) {
    char buffer[64 * 1024];
    const ssize_t got = ::read(direction.from, buffer, sizeof(buffer));
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (got < 0) {
        link.broken = true;
        return;
    }
    Chunk chunk{std::max(now, link.ready) + halfRtt, std::string(buffer, static_cast<size_t>(got))};
    direction.readEnded = got == 0;
    Trace(link, direction, chunk);
    direction.queue.push_back(std::move(chunk));
}

// Delivers what is due; false when the other side would block.
bool Deliver(Link& link, Direction& direction, Clock::time_point now) {
    while (!direction.queue.empty() && direction.queue.front().due <= now) {
        Chunk& chunk = direction.queue.front();
        if (chunk.bytes.empty()) {
            ::shutdown(direction.to, SHUT_WR);
            direction.delivered = true;
            direction.queue.pop_front();
            continue;
        }
        const ssize_t put =
            ::send(direction.to, chunk.bytes.data(), chunk.bytes.size(), MSG_NOSIGNAL);
        if (put < 0 && (errno == EAGAIN || errno == EINTR)) {
            return false;
        }
        if (put < 0) {
            link.broken = true;
            return true;
        }
        chunk.bytes.erase(0, static_cast<size_t>(put));
        if (chunk.bytes.empty()) {
            direction.queue.pop_front();
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::fprintf(stderr, "usage: %s RTT_MS TARGET_PORT PORT_FILE [TRACE_FILE]\n", argv[0]);
        return 2;
    }
    const auto rtt = std::chrono::milliseconds(std::atoi(argv[1]));
    halfRtt = rtt / 2;
    const auto target = static_cast<std::uint16_t>(std::atoi(argv[2]));
    if (argc == 5 && (trace = std::fopen(argv[4], "w")) == nullptr) {
        std::perror(argv[4]);
        return 1;
    }
    std::signal(SIGTERM, Stop);
    std::signal(SIGINT, Stop);
    std::uint16_t port = 0;
    const int listener = Listen(port);
    if (listener < 0) {
        std::perror("listen");
        return 1;
    }
    FILE* portFile = std::fopen(argv[3], "w");
    if (portFile == nullptr) {
        std::perror(argv[3]);
        return 1;
    }
    std::fprintf(portFile, "%u\n", port);
    std::fclose(portFile);

    std::list<Link> links;
    int nextId = 1;
    std::vector<pollfd> fds;
    std::vector<std::pair<Link*, Direction*>> owners;  // the reader behind each entry
    while (stopping == 0) {
        auto now = Clock::now();
        auto wake = Clock::time_point::max();
        fds.assign(1, pollfd{listener, POLLIN, 0});
        owners.assign(1, {nullptr, nullptr});
        for (auto it = links.begin(); it != links.end();) {
            Link& link = *it;
            bool waitingToWrite[2] = {false, false};
            int i = 0;
            for (Direction* direction : {&link.up, &link.down}) {
                waitingToWrite[i++] = !Deliver(link, *direction, now);
            }
            if (link.broken || (link.up.delivered && link.down.delivered)) {
                ::close(link.up.from);
                ::close(link.down.from);
                it = links.erase(it);
                continue;
            }
            i = 0;
            for (Direction* direction : {&link.up, &link.down}) {
                if (!direction->readEnded) {
                    fds.push_back({direction->from, POLLIN, 0});
                    owners.emplace_back(&link, direction);
                }
                if (waitingToWrite[i++]) {
                    fds.push_back({direction->to, POLLOUT, 0});
                    owners.emplace_back(nullptr, nullptr);
                } else if (!direction->queue.empty()) {
                    wake = std::min(wake, direction->queue.front().due);
                }
            }
            ++it;
        }
        int timeoutMs = -1;
        if (wake != Clock::time_point::max()) {
            timeoutMs = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(
                                             std::max(wake - now, Clock::duration::zero()))
                                             .count());
        }
        if (::poll(fds.data(), fds.size(), timeoutMs) < 0 && errno != EINTR) {
            std::perror("poll");
            return 1;
        }
        now = Clock::now();
        if ((fds[0].revents & POLLIN) != 0) {
            const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            const int server = client >= 0 ? ConnectTarget(target) : -1;
            if (server < 0) {
                if (client >= 0) {
                    ::close(client);
                }
            } else {
                Prepare(client);
                Prepare(server);
                Link& link = links.emplace_back();
                link.id = nextId++;
                link.accepted = now;
                link.ready = now + rtt;
                link.up.from = link.down.to = client;
                link.up.to = link.down.from = server;
            }
        }
        for (std::size_t i = 1; i < fds.size(); ++i) {
            const auto [link, direction] = owners[i];
            if (direction != nullptr && (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                ReadInto(*link, *direction, now);
            }
        }
    }
    return 0;
}
