#ifndef BACKEND_SIM_HTTP_SESSION_HPP
#define BACKEND_SIM_HTTP_SESSION_HPP

#include <array>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "backend_sim/http_server.hpp"
#include "sim_common/json.hpp"

namespace backend_sim {

/// One accepted connection: reads one request, applies the fault armed for
/// its exchange, answers and closes. Over TLS when the server has a context.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(boost::asio::ip::tcp::socket&& socket, const HttpServer::Parts& parts);
    void Start();

private:
    boost::beast::tcp_stream& Tcp();
    /// Calls `io` with the stream the HTTP bytes go through (TLS or plain).
    template <typename Io>
    void WithStream(Io&& io);
    void OnHandshake(boost::beast::error_code ec);
    void CloseSocket();
    void ReadHeader();
    void OnHeader(boost::beast::error_code ec);
    void ReadBody();
    void OnRequest(boost::beast::error_code ec);
    void Dispatch();
    /// The event of this request, with what every exchange records.
    void BeginEvent();
    void ServeExchange(Exchange exchange, const std::optional<Fault>& fault);
    void ServeNormally(Exchange exchange, bool keepOpen, bool corruptMac);
    /// Adds status and action to the event, writes it and logs one line.
    void Record(int status, const std::string& action);
    void Answer(const HttpResponse& response, bool keepOpen);
    void SendRaw(std::string bytes, std::function<void()> next);
    void HoldUntilPeerCloses();
    /// Endless body: chunks back to back, or one byte per `interval`.
    void Stream(std::chrono::milliseconds interval);
    void RefuseUnreadable(boost::beast::error_code ec);
    void Close();

    std::optional<boost::beast::tcp_stream> plain_;
    std::optional<boost::beast::ssl_stream<boost::beast::tcp_stream>> tls_;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    boost::asio::steady_timer timer_;
    HttpServer::Parts parts_;
    HttpRequest request_;
    std::string exchangeName_;
    std::optional<sim_common::Json> event_;
    std::string raw_;
    boost::beast::http::response<boost::beast::http::string_body> response_;
    std::array<char, 512> drain_{};
};

}  // namespace backend_sim

#endif  // BACKEND_SIM_HTTP_SESSION_HPP
