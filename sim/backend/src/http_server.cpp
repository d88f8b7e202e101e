#include "backend_sim/http_server.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/strand.hpp>
#include <csignal>
#include <thread>
#include <vector>

#include "http_session.hpp"

namespace backend_sim {

namespace net = boost::asio;
using tcp = net::ip::tcp;

class HttpServer::Impl {
public:
    explicit Impl(Parts parts) : parts_(parts) {}

    ~Impl() {
        Stop();
        Join();
    }

    bool UseTls(const std::string& certFile, const std::string& keyFile,
                const std::string& clientCaFile, std::string& error) {
        tls_.emplace(net::ssl::context::tls_server);
        boost::system::error_code ec;
        const auto fail = [&](const std::string& what) {
            error = "cannot " + what + ": " + ec.message();
            tls_.reset();
            return false;
        };
        tls_->set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                              net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 |
                              net::ssl::context::no_tlsv1_1,
                          ec);
        if (tls_->use_certificate_chain_file(certFile, ec)) {
            return fail("load the TLS certificate '" + certFile + "'");
        }
        if (tls_->use_private_key_file(keyFile, net::ssl::context::pem, ec)) {
            return fail("load the TLS key '" + keyFile + "'");
        }
        if (!clientCaFile.empty()) {
            if (tls_->load_verify_file(clientCaFile, ec)) {
                return fail("load the client CA '" + clientCaFile + "'");
            }
            tls_->set_verify_mode(net::ssl::verify_peer | net::ssl::verify_fail_if_no_peer_cert,
                                  ec);
        }
        // Sessions may be resumed; OpenSSL refuses that for verified clients
        // without a context naming the server.
        static constexpr unsigned char kSessionContext[] = "kelvane-backend-sim";
        SSL_CTX_set_session_id_context(tls_->native_handle(), kSessionContext,
                                       sizeof(kSessionContext) - 1);
        parts_.tls = &*tls_;
        return true;
    }

    bool Listen(const std::string& address, std::uint16_t port, std::string& error) {
        boost::system::error_code ec;
        const auto ip = net::ip::make_address(address, ec);
        if (ec) {
            error = "'" + address + "' is not an IP address";
            return false;
        }
        const tcp::endpoint endpoint(ip, port);
        const auto fail = [&](const char* what) {
            error = std::string("cannot ") + what + " " + address + ":" + std::to_string(port) +
                    ": " + ec.message();
            return false;
        };
        if (acceptor_.open(endpoint.protocol(), ec)) {
            return fail("open a socket for");
        }
        if (acceptor_.set_option(net::socket_base::reuse_address(true), ec)) {
            return fail("set options on");
        }
        if (acceptor_.bind(endpoint, ec)) {
            return fail("bind");
        }
        if (acceptor_.listen(net::socket_base::max_listen_connections, ec)) {
            return fail("listen on");
        }
        return true;
    }

    std::uint16_t Port() const {
        boost::system::error_code ec;
        const auto endpoint = acceptor_.local_endpoint(ec);
        return ec ? 0 : endpoint.port();
    }

    void Begin(bool stopOnSignals) {
        Accept();
        if (stopOnSignals) {
            signals_.emplace(context_, SIGINT, SIGTERM);
            signals_->async_wait([this](boost::system::error_code ec, int) {
                if (!ec) {
                    Stop();
                }
            });
        }
    }

    void RunThreads(unsigned count) {
        for (unsigned i = 0; i < count; ++i) {
            threads_.emplace_back([this] { context_.run(); });
        }
    }

    void RunHere() { context_.run(); }

    void Stop() { context_.stop(); }

    void Join() {
        for (auto& thread : threads_) {
            if (thread.joinable()) {
                thread.join();
            }
        }
        threads_.clear();
    }

private:
    void Accept() {
        acceptor_.async_accept(
            net::make_strand(context_), [this](boost::system::error_code ec, tcp::socket socket) {
                if (!ec) {
                    parts_.events.ConnectionAccepted();
                    std::make_shared<HttpSession>(std::move(socket), parts_)->Start();
                }
                if (acceptor_.is_open()) {
                    Accept();
                }
            });
    }

    Parts parts_;
    std::optional<net::ssl::context> tls_;
    net::io_context context_;
    tcp::acceptor acceptor_{context_};
    std::optional<net::signal_set> signals_;
    std::vector<std::thread> threads_;
};

HttpServer::HttpServer(Parts parts) : impl_(std::make_unique<Impl>(parts)) {}

HttpServer::~HttpServer() = default;

bool HttpServer::UseTls(const std::string& certFile, const std::string& keyFile,
                        const std::string& clientCaFile, std::string& error) {
    return impl_->UseTls(certFile, keyFile, clientCaFile, error);
}

bool HttpServer::Listen(const std::string& address, std::uint16_t port, std::string& error) {
    return impl_->Listen(address, port, error);
}

std::uint16_t HttpServer::Port() const {
    return impl_->Port();
}

void HttpServer::Run(unsigned threads, bool stopOnSignals) {
    impl_->Begin(stopOnSignals);
    impl_->RunThreads(threads > 1 ? threads - 1 : 0);
    impl_->RunHere();
    impl_->Join();
}

void HttpServer::Start(unsigned threads) {
    impl_->Begin(false);
    impl_->RunThreads(threads == 0 ? 1 : threads);
}

void HttpServer::Stop() {
    impl_->Stop();
}

}  // namespace backend_sim
