#ifndef TEST_SUPPORT_SCRIPTED_TCP_SERVER_HPP
#define TEST_SUPPORT_SCRIPTED_TCP_SERVER_HPP

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kelvane::testing {

/// A TCP peer on loopback that plays one script on every connection it accepts (one at a time)
/// and records what it received, e.g. Script().ReceiveRequest().Send("HTTP/1.1 200 OK\r\n\r\nabc").
/// Every wait is bounded and the destructor stops at once, also in the middle of a pause.
class ScriptedTcpServer {
public:
    class Script {
    public:
        /// One HTTP request: its header, then as many body bytes as its Content-Length says.
        Script& ReceiveRequest() { return Add(Kind::kReceiveRequest); }
        Script& ReceiveBytes(std::size_t count) { return Add(Kind::kReceiveBytes, {}, count); }
        Script& Send(std::string bytes) { return Add(Kind::kSend, std::move(bytes)); }
        Script& Pause(std::chrono::milliseconds duration) {
            return Add(Kind::kPause, {}, static_cast<std::size_t>(duration.count()));
        }
        /// Ends the script: the connection is closed after recording whatever arrived unread.
        Script& Close() { return *this; }

    private:
        friend class ScriptedTcpServer;
        enum class Kind { kReceiveRequest, kReceiveBytes, kSend, kPause };
        struct Step {
            Kind kind;
            std::string bytes;
            std::size_t count;
        };
        Script& Add(Kind kind, std::string bytes = {}, std::size_t count = 0) {
            steps_.push_back({kind, std::move(bytes), count});
            return *this;
        }
        std::vector<Step> steps_;
    };

    enum class Family { kIPv4, kIPv6 };

    explicit ScriptedTcpServer(Script script, Family family = Family::kIPv4);
    ~ScriptedTcpServer();
    ScriptedTcpServer(const ScriptedTcpServer&) = delete;
    ScriptedTcpServer& operator=(const ScriptedTcpServer&) = delete;

    std::uint16_t Port() const { return port_; }
    std::string Url(const std::string& path = "/") const;

    /// Bytes received on connection `index` (0 = first), empty if there is none.
    std::string Received(std::size_t index) const;
    /// Waits until the scripts of `count` connections have run to their end; false on time-out.
    bool WaitForFinished(std::size_t count, std::chrono::milliseconds timeout) const;

private:
    void Serve();
    void Play(int fd);
    /// 1 when `fd` is ready, 0 on time-out, -1 when the destructor wakes it.
    int Poll(int fd, short events, int timeoutMs) const;
    /// Reads (and records) until `pending` holds `atLeast` bytes; false on end, stop or time-out.
    bool Read(int fd, std::string& pending, std::size_t atLeast, int timeoutMs = 60000);
    /// Applies `changer` to the records under the lock and wakes the waiters.
    template <typename Changer>
    void Change(Changer changer);

    Script script_;
    Family family_;
    int listenFd_ = -1;
    int wakeFds_[2] = {-1, -1};
    std::uint16_t port_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    /// Per connection accepted; they are served one at a time, so all but the last have finished.
    std::vector<std::string> received_;
    std::size_t finished_ = 0;
    std::thread thread_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_SCRIPTED_TCP_SERVER_HPP
