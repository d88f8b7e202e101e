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

/// A TCP peer on loopback that plays the same script on every connection it
/// accepts (one connection at a time, in order) and records what it received:
///
///     ScriptedTcpServer server(ScriptedTcpServer::Script()
///                                  .ReceiveRequest()
///                                  .Send("HTTP/1.1 200 OK\r\n\r\nabc")
///                                  .Close());
///     ... connect to server.Host():server.Port() ...
///     EXPECT_EQ(server.Received(0), "GET / HTTP/1.1\r\n...");
///
/// Every wait inside is bounded and the destructor stops at once, also in
/// the middle of a pause or a held connection.
class ScriptedTcpServer {
public:
    class Script {
    public:
        /// Reads one HTTP request: up to the blank line that ends its header,
        /// then as many body bytes as its Content-Length says.
        Script& ReceiveRequest();
        /// Reads up to and including the blank line that ends a request
        /// header (a client that expects "100 Continue" sends no more).
        Script& ReceiveHeader();
        /// Reads exactly `count` bytes.
        Script& ReceiveBytes(std::size_t count);
        Script& Send(std::string bytes);
        Script& Pause(std::chrono::milliseconds duration);
        /// Closes the connection (also what happens at the end of a script),
        /// after recording whatever has arrived unread.
        Script& Close();
        /// Keeps the connection open, recording anything more it receives,
        /// until the peer closes it or the server is destroyed.
        Script& KeepOpen();

    private:
        friend class ScriptedTcpServer;
        enum class Kind {
            kReceiveRequest,
            kReceiveHeader,
            kReceiveBytes,
            kSend,
            kPause,
            kClose,
            kKeepOpen
        };
        struct Step {
            Kind kind;
            std::string bytes;
            std::size_t count = 0;
            std::chrono::milliseconds duration{0};
        };
        std::vector<Step> steps_;
    };

    enum class Family { kIPv4, kIPv6 };

    /// Listens on 127.0.0.1 (or ::1) and a free port.
    explicit ScriptedTcpServer(Script script, Family family = Family::kIPv4);
    ~ScriptedTcpServer();
    ScriptedTcpServer(const ScriptedTcpServer&) = delete;
    ScriptedTcpServer& operator=(const ScriptedTcpServer&) = delete;

    /// "127.0.0.1" or "::1".
    std::string Host() const;
    std::uint16_t Port() const { return port_; }
    /// "http://127.0.0.1:<port>" + path.
    std::string Url(const std::string& path = "/") const;

    /// Connections accepted so far.
    std::size_t Connections() const;
    /// Connections whose script has run to its end (closed by either side).
    std::size_t Finished() const;
    /// Bytes received on connection `index` (0 = first), empty if there is none.
    std::string Received(std::size_t index) const;
    /// Waits until `count` connections have finished; false on time-out.
    bool WaitForFinished(std::size_t count, std::chrono::milliseconds timeout) const;

private:
    struct Connection {
        std::string received;
        bool finished = false;
    };

    void Serve();
    void Play(int fd, std::size_t index);
    /// Waits until `fd` is readable (or writable); false when stopping or on time-out.
    bool WaitFor(int fd, short events, int timeoutMs) const;
    /// False when woken by the destructor.
    bool Sleep(std::chrono::milliseconds duration) const;
    bool Read(int fd, std::size_t index, std::string& pending, std::size_t atLeast);
    /// Records what already arrived and was not read by the script.
    void Drain(int fd, std::size_t index);
    void Record(std::size_t index, const char* data, std::size_t size);

    Script script_;
    Family family_;
    int listenFd_ = -1;
    int wakeFds_[2] = {-1, -1};
    std::uint16_t port_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Connection> connections_;
    std::thread thread_;
};

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_SCRIPTED_TCP_SERVER_HPP
