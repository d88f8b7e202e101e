#include "test_support/scripted_tcp_server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "test_support/loopback.hpp"

namespace kelvane::testing {

ScriptedTcpServer::ScriptedTcpServer(Script script, Family family)
    : script_(std::move(script)), family_(family) {
    if (::pipe2(wakeFds_, O_CLOEXEC) != 0) {
        throw std::runtime_error("ScriptedTcpServer: no pipe");
    }
    listenFd_ = ListenOnLoopback(port_, family_ == Family::kIPv6);
    thread_ = std::thread([this] { Serve(); });
}

ScriptedTcpServer::~ScriptedTcpServer() {
    (void)!::write(wakeFds_[1], "s", 1);
    thread_.join();
    for (const int fd : {listenFd_, wakeFds_[0], wakeFds_[1]}) {
        ::close(fd);
    }
}

std::string ScriptedTcpServer::Url(const std::string& path) const {
    const std::string host = family_ == Family::kIPv4 ? "127.0.0.1" : "[::1]";
    return "http://" + host + ":" + std::to_string(port_) + path;
}

std::string ScriptedTcpServer::Received(std::size_t index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return index < received_.size() ? received_[index] : std::string();
}

bool ScriptedTcpServer::WaitForFinished(std::size_t count,
                                        std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return finished_ >= count; });
}

int ScriptedTcpServer::Poll(int fd, short events, int timeoutMs) const {
    pollfd entries[2] = {{wakeFds_[0], POLLIN, 0}, {fd, events, 0}};
    int ready = 0;
    while ((ready = ::poll(entries, fd >= 0 ? 2 : 1, timeoutMs)) < 0 && errno == EINTR) {
    }
    return ready < 0 || entries[0].revents != 0 ? -1 : ready == 0 ? 0 : 1;
}

void ScriptedTcpServer::Serve() {
    while (Poll(listenFd_, POLLIN, -1) == 1) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        Change([this] { received_.emplace_back(); });
        Play(fd);
        std::string unread;
        while (Read(fd, unread, unread.size() + 1, 0)) {
        }
        ::close(fd);
        Change([this] { ++finished_; });
    }
}

template <typename Changer>
void ScriptedTcpServer::Change(Changer changer) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        changer();
    }
    changed_.notify_all();
}

bool ScriptedTcpServer::Read(int fd, std::string& pending, std::size_t atLeast, int timeoutMs) {
    char buffer[4096];
    while (pending.size() < atLeast) {
        const ssize_t count =
            Poll(fd, POLLIN, timeoutMs) == 1 ? ::read(fd, buffer, sizeof(buffer)) : 0;
        if (count <= 0) {
            return false;
        }
        pending.append(buffer, static_cast<std::size_t>(count));
        Change([&] { received_.back().append(buffer, static_cast<std::size_t>(count)); });
    }
    return true;
}

void ScriptedTcpServer::Play(int fd) {
    std::string pending;
    for (const auto& step : script_.steps_) {
        std::size_t consumed = step.count;
        switch (step.kind) {
            case Script::Kind::kReceiveRequest: {
                std::size_t headerEnd = 0;
                while ((headerEnd = pending.find("\r\n\r\n")) == std::string::npos) {
                    if (!Read(fd, pending, pending.size() + 1)) {
                        return;
                    }
                }
                const std::string header = pending.substr(0, headerEnd + 2);
                const char* length = ::strcasestr(header.c_str(), "\r\ncontent-length:");
                consumed = headerEnd + 4 + (length ? std::strtoul(length + 17, nullptr, 10) : 0);
                break;
            }
            case Script::Kind::kSend:
                if (::send(fd, step.bytes.data(), step.bytes.size(), MSG_NOSIGNAL) !=
                    static_cast<ssize_t>(step.bytes.size())) {
                    return;
                }
                continue;
            case Script::Kind::kPause:
                if (Poll(-1, 0, static_cast<int>(step.count)) != 0) {
                    return;
                }
                continue;
            case Script::Kind::kReceiveBytes:
                break;
        }
        if (!Read(fd, pending, consumed)) {
            return;
        }
        pending.erase(0, consumed);
    }
}

}  // namespace kelvane::testing
