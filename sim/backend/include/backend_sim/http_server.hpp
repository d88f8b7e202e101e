#ifndef BACKEND_SIM_HTTP_SERVER_HPP
#define BACKEND_SIM_HTTP_SERVER_HPP

#include <cstdint>
#include <memory>
#include <string>

#include "backend_sim/admin_api.hpp"
#include "backend_sim/backend_service.hpp"
#include "backend_sim/event_log.hpp"
#include "backend_sim/fault_plan.hpp"

namespace boost::asio::ssl {
class context;
}  // namespace boost::asio::ssl

namespace backend_sim {

/// HTTP/1.1 front of the backend simulator: one request per connection,
/// answered and closed (unless a fault says otherwise), faults applied on
/// the wire, every exchange recorded in the event log.
class HttpServer {
public:
    struct Parts {
        BackendService& service;
        FaultPlan& faults;
        AdminApi& admin;
        EventLog& events;
        boost::asio::ssl::context* tls = nullptr;  // set by UseTls()
    };

    explicit HttpServer(Parts parts);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Serves HTTPS with this certificate chain and key (PEM files); with
    /// `clientCaFile`, only to clients whose certificate that CA issued.
    bool UseTls(const std::string& certFile, const std::string& keyFile,
                const std::string& clientCaFile, std::string& error);
    /// Binds `address` (a loopback literal) and `port` (0 = any free one).
    bool Listen(const std::string& address, std::uint16_t port, std::string& error);
    /// The port actually bound.
    std::uint16_t Port() const;

    /// Serves on `threads` threads, the caller's included, until Stop() or
    /// SIGINT/SIGTERM (when `stopOnSignals`).
    void Run(unsigned threads, bool stopOnSignals);
    /// Serves on `threads` background threads; the destructor stops them.
    void Start(unsigned threads);
    /// Thread-safe; connections still open are dropped.
    void Stop();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace backend_sim

#endif  // BACKEND_SIM_HTTP_SERVER_HPP
