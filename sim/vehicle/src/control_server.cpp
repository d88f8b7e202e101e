#include "vehicle_sim/control_server.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "csc_logging/csc_logging.hpp"
#include "unix_socket.hpp"
#include "vehicle_sim/control_client.hpp"

namespace vehicle_sim {
namespace {

constexpr std::size_t kMaxCommand = 4096;
constexpr int kReadTimeoutMs = 2000;

std::string Reason(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

}  // namespace

ControlServer::ControlServer(std::string socketPath, Handler handler)
    : socketPath_(std::move(socketPath)), handler_(std::move(handler)) {}

ControlServer::~ControlServer() {
    Stop();
}

bool ControlServer::Start(std::string& error) {
    sockaddr_un address{};
    if (!UnixAddress(socketPath_, address)) {
        error = "control socket path " + socketPath_ + " is too long (at most " +
                std::to_string(sizeof(address.sun_path) - 1) + " characters)";
        return false;
    }
    std::string ignored;
    if (ControlClient::Send(socketPath_, "ping", ignored, std::chrono::milliseconds(1000)) !=
        ControlClient::Result::kNotRunning) {
        error = "another simulator answers on " + socketPath_;
        return false;
    }
    ::unlink(socketPath_.c_str());
    listenFd_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int wake[2];
    if (!listenFd_ || ::pipe2(wake, O_CLOEXEC) != 0) {
        error = Reason("cannot create the control socket");
        return false;
    }
    wakeRead_.Reset(wake[0]);
    wakeWrite_.Reset(wake[1]);
    const mode_t previous = ::umask(0077);
    const int bound =
        ::bind(listenFd_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::umask(previous);
    if (bound != 0 || ::listen(listenFd_.Get(), 8) != 0) {
        error = Reason("cannot listen on " + socketPath_);
        return false;
    }
    thread_ = std::thread([this] { Serve(); });
    return true;
}

void ControlServer::Stop() {
    if (thread_.joinable()) {
        const char wake = 1;
        (void)!::write(wakeWrite_.Get(), &wake, 1);
        thread_.join();
        ::unlink(socketPath_.c_str());
    }
    listenFd_.Reset();
    wakeRead_.Reset();
    wakeWrite_.Reset();
}

void ControlServer::Serve() {
    while (true) {
        pollfd fds[2] = {{listenFd_.Get(), POLLIN, 0}, {wakeRead_.Get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            csc_logging::CSCLogging::Error(Reason("Control socket poll failed"));
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        const unique_fd::UniqueFd fd(::accept4(listenFd_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (fd) {
            ServeOne(fd.Get());
        }
    }
}

void ControlServer::ServeOne(int fd) {
    std::string command;
    char buffer[512];
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(kReadTimeoutMs);
    while (command.find('\n') == std::string::npos && command.size() < kMaxCommand) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd descriptor{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
            return;
        }
        const ssize_t n = ::read(fd, buffer, sizeof(buffer));
        if (n <= 0) {
            break;
        }
        command.append(buffer, static_cast<std::size_t>(n));
    }
    command = command.substr(0, command.find('\n'));
    if (!command.empty() && command.back() == '\r') {
        command.pop_back();
    }
    const std::string reply = handler_(command);
    std::size_t written = 0;
    while (written < reply.size()) {
        const ssize_t n = ::send(fd, reply.data() + written, reply.size() - written, MSG_NOSIGNAL);
        if (n <= 0) {
            return;
        }
        written += static_cast<std::size_t>(n);
    }
}

}  // namespace vehicle_sim
