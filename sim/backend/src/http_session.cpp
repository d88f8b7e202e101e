#include "http_session.hpp"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/write.hpp>
#include <cctype>
#include <chrono>

#include "csc_logging/csc_logging.hpp"

namespace backend_sim {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;

constexpr auto kRequestTimeLimit = std::chrono::seconds(30);
// A held connection ends when the peer gives up; this only bounds a peer that never does.
constexpr auto kHoldLimit = std::chrono::seconds(300);
constexpr auto kShutdownLimit = std::chrono::seconds(2);
constexpr std::uint64_t kBodyLimit = 1024 * 1024;

// Field 1 as length-delimited with a length far beyond the bytes that follow:
// no protobuf parser accepts it.
const std::string kGarbageBody = std::string("\x0a\x7f", 2) + "this is not a protobuf message";

std::string Lower(std::string text) {
    for (auto& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string ReasonOf(int status) {
    const auto reason = http::obsolete_reason(http::int_to_status(static_cast<unsigned>(status)));
    return reason == "<unknown-status>" ? "Injected Fault" : std::string(reason);
}

/// An injected status, written by hand so that any code goes out as it is.
std::string RawStatus(int status) {
    const bool bodyless = status < 200 || status == 204 || status == 304;
    const std::string body =
        bodyless ? "" : "injected fault: status " + std::to_string(status) + "\n";
    std::string text = "HTTP/1.1 " + std::to_string(status) + " " + ReasonOf(status) + "\r\n";
    if (!bodyless) {
        text +=
            "Content-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return text + "Connection: close\r\n\r\n" + body;
}

}  // namespace

HttpSession::HttpSession(net::ip::tcp::socket&& socket, const HttpServer::Parts& parts)
    : timer_(socket.get_executor()), parts_(parts) {
    if (parts_.tls != nullptr) {
        tls_.emplace(std::move(socket), *parts_.tls);
    } else {
        plain_.emplace(std::move(socket));
    }
}

beast::tcp_stream& HttpSession::Tcp() {
    return tls_ ? tls_->next_layer() : *plain_;
}

template <typename Io>
void HttpSession::WithStream(Io&& io) {
    if (tls_) {
        io(*tls_);
    } else {
        io(*plain_);
    }
}

void HttpSession::Start() {
    if (!tls_) {
        net::dispatch(Tcp().get_executor(),
                      beast::bind_front_handler(&HttpSession::ReadHeader, shared_from_this()));
        return;
    }
    // TLS writes small records that wait for answers; Nagle would hold them.
    beast::error_code ignored;
    Tcp().socket().set_option(net::ip::tcp::no_delay(true), ignored);
    Tcp().expires_after(kRequestTimeLimit);
    tls_->async_handshake(net::ssl::stream_base::server,
                          beast::bind_front_handler(&HttpSession::OnHandshake, shared_from_this()));
}

void HttpSession::OnHandshake(beast::error_code ec) {
    if (ec == net::ssl::error::stream_truncated || ec == net::error::eof) {
        CloseSocket();  // a reachability probe: connected and left
        return;
    }
    if (ec) {
        csc_logging::CSCLogging::Warning("TLS handshake failed: " + ec.message());
        auto event = parts_.events.Begin();
        event["exchange"] = "tls";
        event["result"] = ec.message();
        parts_.events.Write(event);
        CloseSocket();
        return;
    }
    ReadHeader();
}

void HttpSession::ReadHeader() {
    parser_.emplace();
    parser_->body_limit(kBodyLimit);
    Tcp().expires_after(kRequestTimeLimit);
    WithStream([this](auto& stream) {
        http::async_read_header(
            stream, buffer_, *parser_,
            [self = shared_from_this()](beast::error_code ec, std::size_t) { self->OnHeader(ec); });
    });
}

void HttpSession::OnHeader(beast::error_code ec) {
    if (ec) {
        RefuseUnreadable(ec);
        return;
    }
    if (beast::iequals(parser_->get()[http::field::expect], "100-continue")) {
        SendRaw("HTTP/1.1 100 Continue\r\n\r\n", [this] { ReadBody(); });
        return;
    }
    ReadBody();
}

void HttpSession::ReadBody() {
    WithStream([this](auto& stream) {
        http::async_read(stream, buffer_, *parser_,
                         [self = shared_from_this()](beast::error_code ec, std::size_t) {
                             self->OnRequest(ec);
                         });
    });
}

void HttpSession::OnRequest(beast::error_code ec) {
    if (ec) {
        RefuseUnreadable(ec);
        return;
    }
    Tcp().expires_never();
    const auto& message = parser_->get();
    request_.method = std::string(message.method_string());
    request_.target = std::string(message.target());
    for (const auto& field : message) {
        request_.headers[Lower(std::string(field.name_string()))] = std::string(field.value());
    }
    request_.body = message.body();
    Dispatch();
}

void HttpSession::RefuseUnreadable(beast::error_code ec) {
    // A peer that went away or stayed silent gets no answer; one that sent
    // something that is not HTTP is told so.
    if (ec.category() != http::make_error_code(http::error::end_of_stream).category() ||
        ec == http::error::end_of_stream || ec == http::error::partial_message) {
        Close();
        return;
    }
    const int status = ec == http::error::body_limit ? 413 : 400;
    csc_logging::CSCLogging::Warning("Unreadable request: " + ec.message());
    auto event = parts_.events.Begin();
    event["exchange"] = "unreadable";
    event["result"] = ec.message();
    event["status"] = status;
    parts_.events.Write(event);
    SendRaw("HTTP/1.1 " + std::to_string(status) + " " + ReasonOf(status) +
                "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
            [this] { Close(); });
}

void HttpSession::Dispatch() {
    const std::string path = request_.Path();
    if (AdminApi::Handles(path)) {
        exchangeName_ = "admin";
        BeginEvent();
        const auto response = parts_.admin.Handle(request_);
        Record(response.status, "answered");
        Answer(response, false);
        return;
    }
    const auto exchange = parts_.service.ExchangeOf(path);
    if (!exchange) {
        exchangeName_ = "unknown";
        BeginEvent();
        Record(404, "answered");
        Answer(HttpResponse::Text(404, "no exchange at " + path), false);
        return;
    }
    ServeExchange(*exchange, parts_.faults.Take(*exchange));
}

void HttpSession::BeginEvent() {
    event_ = parts_.events.Begin();
    (*event_)["exchange"] = exchangeName_;
    (*event_)["method"] = request_.method;
    (*event_)["path"] = request_.target;
}

void HttpSession::ServeExchange(Exchange exchange, const std::optional<Fault>& fault) {
    exchangeName_ = ExchangeName(exchange);
    BeginEvent();
    if (!fault) {
        ServeNormally(exchange, false, false);
        return;
    }
    (*event_)["fault"] = fault->Describe();
    switch (fault->kind) {
        case FaultKind::kClose:
            Record(0, "closed without answering");
            Close();
            return;
        case FaultKind::kHang:
            Record(0, "holding the connection without answering");
            HoldUntilPeerCloses();
            return;
        case FaultKind::kNoDigits:
            Record(0, "answered with a status line without digits");
            SendRaw("HTTP/1.1 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
                    [this] { Close(); });
            return;
        case FaultKind::kStatus:
            Record(fault->argument, "answered with the injected status");
            SendRaw(RawStatus(fault->argument), [this] { Close(); });
            return;
        case FaultKind::kEmptyBody:
        case FaultKind::kGarbageBody: {
            HttpResponse response;
            const std::string contentType = BackendService::ResponseContentType(exchange);
            if (!contentType.empty()) {
                response.headers.emplace_back("Content-Type", contentType);
            }
            const bool garbage = fault->kind == FaultKind::kGarbageBody;
            response.body = garbage ? kGarbageBody : "";
            Record(200, garbage ? "answered with a body that is not protobuf"
                                : "answered with an empty body");
            Answer(response, false);
            return;
        }
        case FaultKind::kDelay:
            timer_.expires_after(std::chrono::milliseconds(fault->argument));
            timer_.async_wait([self = shared_from_this(), exchange](beast::error_code ec) {
                if (!ec) {
                    self->ServeNormally(exchange, false, false);
                }
            });
            return;
        case FaultKind::kContinue:
            SendRaw("HTTP/1.1 100 Continue\r\n\r\n",
                    [this, exchange] { ServeNormally(exchange, false, false); });
            return;
        case FaultKind::kKeepOpen:
            ServeNormally(exchange, true, false);
            return;
        case FaultKind::kBadMac:
            ServeNormally(exchange, false, true);
            return;
        case FaultKind::kFlood:
        case FaultKind::kTrickle: {
            const bool flood = fault->kind == FaultKind::kFlood;
            Record(200, flood ? "flooding an endless body" : "trickling an endless body");
            const auto interval = std::chrono::milliseconds(flood ? 0 : fault->argument);
            SendRaw(std::string("HTTP/1.1 200 OK\r\nContent-Type: ") +
                        BackendService::ResponseContentType(exchange) + "\r\n\r\n",
                    [this, interval] { Stream(interval); });
            return;
        }
    }
}

void HttpSession::ServeNormally(Exchange exchange, bool keepOpen, bool corruptMac) {
    const auto response = parts_.service.Serve(exchange, request_, corruptMac, *event_);
    Record(response.status, keepOpen ? "answered, connection kept open" : "answered");
    Answer(response, keepOpen);
}

void HttpSession::Record(int status, const std::string& action) {
    if (status > 0) {
        (*event_)["status"] = status;
    }
    (*event_)["action"] = action;
    // Written before the answer leaves, so that whoever reads the answer
    // finds the event already in the log.
    parts_.events.Write(*event_);
    csc_logging::CSCLogging::Info(
        csc_logging::CSCLogEntry()
        << exchangeName_ << " " << request_.method << " " << request_.target << " -> "
        << (status > 0 ? std::to_string(status) : std::string("-")) << " (" << action << ")");
}

void HttpSession::Answer(const HttpResponse& response, bool keepOpen) {
    response_ = {};
    response_.version(11);
    response_.result(static_cast<unsigned>(response.status));
    for (const auto& [name, value] : response.headers) {
        response_.set(name, value);
    }
    response_.set(http::field::server, "kelvane-backend-sim");
    if (!keepOpen) {
        response_.set(http::field::connection, "close");
    }
    response_.body() = response.body;
    response_.prepare_payload();
    if (response.status == 204 || response.status == 304) {
        response_.erase(http::field::content_length);
    }
    WithStream([this, keepOpen](auto& stream) {
        http::async_write(stream, response_,
                          [self = shared_from_this(), keepOpen](beast::error_code ec, std::size_t) {
                              if (!ec && keepOpen) {
                                  self->HoldUntilPeerCloses();
                              } else {
                                  self->Close();
                              }
                          });
    });
}

void HttpSession::SendRaw(std::string bytes, std::function<void()> next) {
    raw_ = std::move(bytes);
    WithStream([this, &next](auto& stream) {
        net::async_write(
            stream, net::buffer(raw_),
            [self = shared_from_this(), next = std::move(next)](beast::error_code ec, std::size_t) {
                if (ec) {
                    self->Close();
                } else {
                    next();
                }
            });
    });
}

void HttpSession::HoldUntilPeerCloses() {
    Tcp().expires_after(kHoldLimit);
    WithStream([this](auto& stream) {
        stream.async_read_some(net::buffer(drain_),
                               [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                   if (ec) {
                                       self->Close();
                                   } else {
                                       self->HoldUntilPeerCloses();
                                   }
                               });
    });
}

void HttpSession::Stream(std::chrono::milliseconds interval) {
    // Ends when the peer closes (the write fails) or after the hold limit.
    Tcp().expires_after(kHoldLimit);
    raw_.assign(interval.count() == 0 ? 64 * 1024 : 1, 'x');
    WithStream([this, interval](auto& stream) {
        net::async_write(
            stream, net::buffer(raw_),
            [self = shared_from_this(), interval](beast::error_code ec, std::size_t) {
                if (ec) {
                    self->Close();
                } else if (interval.count() == 0) {
                    self->Stream(interval);
                } else {
                    self->timer_.expires_after(interval);
                    self->timer_.async_wait([self, interval](beast::error_code waitEc) {
                        if (!waitEc) {
                            self->Stream(interval);
                        }
                    });
                }
            });
    });
}

void HttpSession::Close() {
    timer_.cancel();
    if (!tls_) {
        CloseSocket();
        return;
    }
    // close_notify first, so that the client can tell the end from a cut.
    Tcp().expires_after(kShutdownLimit);
    tls_->async_shutdown([self = shared_from_this()](beast::error_code) { self->CloseSocket(); });
}

void HttpSession::CloseSocket() {
    beast::error_code ignored;
    Tcp().socket().shutdown(net::ip::tcp::socket::shutdown_send, ignored);
    Tcp().socket().close(ignored);
}

}  // namespace backend_sim
