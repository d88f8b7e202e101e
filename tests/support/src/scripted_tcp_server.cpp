#include "test_support/scripted_tcp_server.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace kelvane::testing {
namespace {

// A peer that stops sending in the middle of a request fails the script after this.
constexpr int kReadTimeoutMs = 60000;

std::size_t ContentLength(const std::string& header) {
    std::string lower(header);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const auto name = lower.find("\r\ncontent-length:");
    if (name == std::string::npos) {
        return 0;
    }
    std::size_t pos = name + 17;
    while (pos < lower.size() && lower[pos] == ' ') {
        ++pos;
    }
    std::size_t length = 0;
    while (pos < lower.size() && std::isdigit(static_cast<unsigned char>(lower[pos])) != 0) {
        length = length * 10 + static_cast<std::size_t>(lower[pos] - '0');
        ++pos;
    }
    return length;
}

}  // namespace

ScriptedTcpServer::Script& ScriptedTcpServer::Script::ReceiveRequest() {
    steps_.push_back({Kind::kReceiveRequest, {}, 0, {}});
    return *this;
}

ScriptedTcpServer::Script& ScriptedTcpServer::Script::ReceiveHeader() {
    steps_.push_back({Kind::kReceiveHeader, {}, 0, {}});
    return *this;
}

ScriptedTcpServer::Script& ScriptedTcpServer::Script::ReceiveBytes(std::size_t count) {
    steps_.push_back({Kind::kReceiveBytes, {}, count, {}});
    return *this;
}

ScriptedTcpServer::Script& ScriptedTcpServer::Script::Send(std::string bytes) {
    steps_.push_back({Kind::kSend, std::move(bytes), 0, {}});
    return *this;
}

ScriptedTcpServer::Script& ScriptedTcpServer::Script::Pause(std::chrono::milliseconds duration) {
    steps_.push_back({Kind::kPause, {}, 0, duration});
    return *this;
}

ScriptedTcpServer::Script& ScriptedTcpServer::Script::Close() {
    steps_.push_back({Kind::kClose, {}, 0, {}});
    return *this;
}

ScriptedTcpServer::Script& ScriptedTcpServer::Script::KeepOpen() {
    steps_.push_back({Kind::kKeepOpen, {}, 0, {}});
    return *this;
}

ScriptedTcpServer::ScriptedTcpServer(Script script, Family family)
    : script_(std::move(script)), family_(family) {
    if (::pipe2(wakeFds_, O_CLOEXEC) != 0) {
        throw std::runtime_error("ScriptedTcpServer: pipe failed");
    }
    const int domain = family_ == Family::kIPv4 ? AF_INET : AF_INET6;
    listenFd_ = ::socket(domain, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) {
        throw std::runtime_error("ScriptedTcpServer: socket failed");
    }
    const int yes = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    int bound = -1;
    if (family_ == Family::kIPv4) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bound = ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    } else {
        ::setsockopt(listenFd_, IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof(yes));
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
        bound = ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin6_port);
    }
    if (bound != 0 || ::listen(listenFd_, 16) != 0) {
        ::close(listenFd_);
        ::close(wakeFds_[0]);
        ::close(wakeFds_[1]);
        throw std::runtime_error("ScriptedTcpServer: cannot listen on loopback");
    }
    thread_ = std::thread([this] { Serve(); });
}

ScriptedTcpServer::~ScriptedTcpServer() {
    const char stop = 's';
    (void)!::write(wakeFds_[1], &stop, 1);
    thread_.join();
    ::close(listenFd_);
    ::close(wakeFds_[0]);
    ::close(wakeFds_[1]);
}

std::string ScriptedTcpServer::Host() const {
    return family_ == Family::kIPv4 ? "127.0.0.1" : "::1";
}

std::string ScriptedTcpServer::Url(const std::string& path) const {
    const std::string host = family_ == Family::kIPv4 ? Host() : "[" + Host() + "]";
    return "http://" + host + ":" + std::to_string(port_) + path;
}

std::size_t ScriptedTcpServer::Connections() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_.size();
}

std::size_t ScriptedTcpServer::Finished() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                  [](const auto& c) { return c.finished; }));
}

std::string ScriptedTcpServer::Received(std::size_t index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return index < connections_.size() ? connections_[index].received : std::string();
}

bool ScriptedTcpServer::WaitForFinished(std::size_t count,
                                        std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
        return static_cast<std::size_t>(std::count_if(connections_.begin(), connections_.end(),
                                                      [](const auto& c) { return c.finished; })) >=
               count;
    });
}

bool ScriptedTcpServer::WaitFor(int fd, short events, int timeoutMs) const {
    pollfd entries[2] = {{wakeFds_[0], POLLIN, 0}, {fd, events, 0}};
    const nfds_t count = fd >= 0 ? 2 : 1;
    for (;;) {
        const int ready = ::poll(entries, count, timeoutMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0 || entries[0].revents != 0) {
            return false;
        }
        return count == 2 && entries[1].revents != 0;
    }
}

bool ScriptedTcpServer::Sleep(std::chrono::milliseconds duration) const {
    const auto deadline = std::chrono::steady_clock::now() + duration;
    pollfd wake{wakeFds_[0], POLLIN, 0};
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return true;
        }
        if (::poll(&wake, 1, static_cast<int>(left.count())) > 0) {
            return false;
        }
    }
}

void ScriptedTcpServer::Serve() {
    while (WaitFor(listenFd_, POLLIN, -1)) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        std::size_t index = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            index = connections_.size();
            connections_.emplace_back();
        }
        changed_.notify_all();
        Play(fd, index);
        Drain(fd, index);
        ::close(fd);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            connections_[index].finished = true;
        }
        changed_.notify_all();
    }
}

void ScriptedTcpServer::Record(std::size_t index, const char* data, std::size_t size) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        connections_[index].received.append(data, size);
    }
    changed_.notify_all();
}

bool ScriptedTcpServer::Read(int fd, std::size_t index, std::string& pending, std::size_t atLeast) {
    char buffer[4096];
    while (pending.size() < atLeast) {
        if (!WaitFor(fd, POLLIN, kReadTimeoutMs)) {
            return false;
        }
        const ssize_t count = ::read(fd, buffer, sizeof(buffer));
        if (count <= 0) {
            return false;
        }
        Record(index, buffer, static_cast<std::size_t>(count));
        pending.append(buffer, static_cast<std::size_t>(count));
    }
    return true;
}

void ScriptedTcpServer::Drain(int fd, std::size_t index) {
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0) {
        Record(index, buffer, static_cast<std::size_t>(count));
    }
}

void ScriptedTcpServer::Play(int fd, std::size_t index) {
    std::string pending;
    for (const auto& step : script_.steps_) {
        switch (step.kind) {
            case Script::Kind::kReceiveRequest:
            case Script::Kind::kReceiveHeader: {
                std::size_t headerEnd = 0;
                while ((headerEnd = pending.find("\r\n\r\n")) == std::string::npos) {
                    if (!Read(fd, index, pending, pending.size() + 1)) {
                        return;
                    }
                }
                std::size_t total = headerEnd + 4;
                if (step.kind == Script::Kind::kReceiveRequest) {
                    total += ContentLength(pending.substr(0, headerEnd + 2));
                }
                if (!Read(fd, index, pending, total)) {
                    return;
                }
                pending.erase(0, total);
                break;
            }
            case Script::Kind::kReceiveBytes:
                if (!Read(fd, index, pending, step.count)) {
                    return;
                }
                pending.erase(0, step.count);
                break;
            case Script::Kind::kSend: {
                std::size_t sent = 0;
                while (sent < step.bytes.size()) {
                    const ssize_t count = ::send(fd, step.bytes.data() + sent,
                                                 step.bytes.size() - sent, MSG_NOSIGNAL);
                    if (count <= 0) {
                        return;
                    }
                    sent += static_cast<std::size_t>(count);
                }
                break;
            }
            case Script::Kind::kPause:
                if (!Sleep(step.duration)) {
                    return;
                }
                break;
            case Script::Kind::kClose:
                return;
            case Script::Kind::kKeepOpen: {
                char buffer[4096];
                while (WaitFor(fd, POLLIN, -1)) {
                    const ssize_t count = ::read(fd, buffer, sizeof(buffer));
                    if (count <= 0) {
                        return;
                    }
                    Record(index, buffer, static_cast<std::size_t>(count));
                }
                return;
            }
        }
    }
}

}  // namespace kelvane::testing
