#include "service_state_monitor.hpp"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "connector_config.hpp"
#include "csc_logging/csc_logging.hpp"
#include "netlink_route_source.hpp"

namespace vi_connector {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;
using Milliseconds = std::chrono::milliseconds;

// A burst of events (a link that comes up brings its addresses and routes)
// is looked at once, this long after its first event.
constexpr auto kSettle = std::chrono::milliseconds(200);
// Probes asked for by route changes and failed connections are this far apart
// at least, so a flapping link cannot turn into a stream of connections.
constexpr auto kProbeGap = std::chrono::seconds(1);
constexpr double kJitter = 0.2;

void Signal(int fd) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(fd, &one, sizeof(one));
}

bool Cancelled(int cancelFd) {
    pollfd cancel{cancelFd, POLLIN, 0};
    return cancelFd >= 0 && ::poll(&cancel, 1, 0) > 0;
}

// Waits for a non-blocking connect; false on refusal, time-out or cancellation.
bool ConnectFinished(int fd, int timeoutMs, int cancelFd) {
    const auto deadline = std::chrono::steady_clock::now() + Milliseconds(timeoutMs);
    while (true) {
        const auto left =
            std::chrono::duration_cast<Milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd fds[2] = {{fd, POLLOUT, 0}, {cancelFd, POLLIN, 0}};
        const int ready = ::poll(fds, cancelFd >= 0 ? 2 : 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0 || (cancelFd >= 0 && (fds[1].revents & POLLIN) != 0)) {
            return false;
        }
        int error = 0;
        socklen_t length = sizeof(error);
        return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
    }
}

}  // namespace

std::optional<ProbeTarget> ProbeTargetFromUrl(const std::string& url) {
    ProbeTarget target;
    std::string rest;
    if (url.rfind("http://", 0) == 0) {
        target.port = 80;
        rest = url.substr(7);
    } else if (url.rfind("https://", 0) == 0) {
        target.port = 443;
        rest = url.substr(8);
    } else {
        return std::nullopt;
    }
    std::string authority = rest.substr(0, rest.find_first_of("/?#"));
    const auto at = authority.rfind('@');
    if (at != std::string::npos) {
        authority.erase(0, at + 1);
    }
    std::string portText;
    if (!authority.empty() && authority.front() == '[') {
        const auto close = authority.find(']');
        if (close == std::string::npos) {
            return std::nullopt;
        }
        target.host = authority.substr(1, close - 1);
        if (close + 1 < authority.size()) {
            if (authority[close + 1] != ':') {
                return std::nullopt;
            }
            portText = authority.substr(close + 2);
        }
    } else {
        const auto colon = authority.find(':');
        target.host = authority.substr(0, colon);
        if (colon != std::string::npos) {
            portText = authority.substr(colon + 1);
        }
    }
    if (target.host.empty()) {
        return std::nullopt;
    }
    if (!portText.empty()) {
        char* end = nullptr;
        const long port = std::strtol(portText.c_str(), &end, 10);
        if (*end != '\0' || port < 1 || port > 65535) {
            return std::nullopt;
        }
        target.port = static_cast<std::uint16_t>(port);
    }
    return target;
}

bool TcpReachable(const std::string& host, std::uint16_t port, int timeoutMs, int cancelFd) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* addresses = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &addresses) != 0) {
        return false;
    }
    bool reachable = false;
    for (addrinfo* address = addresses; address != nullptr && !reachable;
         address = address->ai_next) {
        if (Cancelled(cancelFd)) {
            break;
        }
        const unique_fd::UniqueFd fd(::socket(address->ai_family,
                                              address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                                              address->ai_protocol));
        if (!fd) {
            continue;
        }
        if (::connect(fd.Get(), address->ai_addr, address->ai_addrlen) == 0) {
            reachable = true;
        } else if (errno == EINPROGRESS) {
            reachable = ConnectFinished(fd.Get(), timeoutMs, cancelFd);
        }
    }
    ::freeaddrinfo(addresses);
    return reachable;
}

ServiceStateMonitor::ServiceStateMonitor(std::uint8_t fixedState) : measured_(fixedState) {}

ServiceStateMonitor::ServiceStateMonitor(Probe probe, std::string host,
                                         std::unique_ptr<RouteSourceIf> routes, Schedule schedule,
                                         std::function<Clock::time_point()> now)
    : probe_(std::move(probe))
    , host_(std::move(host))
    , routes_(std::move(routes))
    , schedule_(schedule)
    , now_(std::move(now))
    , random_(std::random_device{}()) {
    cancelFd_.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    wakeFd_.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!cancelFd_ || !wakeFd_) {
        throw std::system_error(errno, std::generic_category(), "ServiceStateMonitor: eventfd");
    }
    thread_ = std::thread([this] { Run(); });
}

ServiceStateMonitor::~ServiceStateMonitor() {
    if (thread_.joinable()) {
        stopping_ = true;
        Signal(cancelFd_.Get());
        Signal(wakeFd_.Get());
        thread_.join();
    }
}

std::unique_ptr<ServiceStateMonitor> ServiceStateMonitor::FromConfig(
    const ConnectorConfig& config) {
    const auto& settings = config.connectionState;
    if (settings.mode == ConnectionStateSettings::Mode::kFixed) {
        return std::make_unique<ServiceStateMonitor>(settings.fixedState);
    }
    ProbeTarget target;
    if (!config.transactions.empty()) {
        target =
            ProbeTargetFromUrl(config.transactions.begin()->second.url).value_or(ProbeTarget{});
    }
    if (!settings.probeHost.empty()) {
        target.host = settings.probeHost;
    }
    if (settings.probePort != 0) {
        target.port = settings.probePort;
    }
    if (target.host.empty() || target.port == 0) {
        CSCLogging::Warning(
            "VIConnector: no backend host and port to probe; the connection state stays 1");
        return std::make_unique<ServiceStateMonitor>(kNotConnected);
    }
    Schedule schedule;
    schedule.interval = Milliseconds(settings.probeIntervalMs);
    schedule.retryMin = Milliseconds(settings.probeRetryMinMs);
    schedule.retryMax = Milliseconds(settings.probeRetryMaxMs);
    CSCLogging::Info(CSCLogEntry()
                     << "VIConnector: watching the routes to " << target.host << "; probing "
                     << target.host << ":" << target.port << " when they change and every "
                     << settings.probeIntervalMs << " ms");
    const int timeoutMs = settings.probeTimeoutMs;
    return std::make_unique<ServiceStateMonitor>(
        [target, timeoutMs](int cancelFd) {
            return TcpReachable(target.host, target.port, timeoutMs, cancelFd);
        },
        target.host, std::make_unique<NetlinkRouteSource>(), schedule);
}

void ServiceStateMonitor::Subscribe(const std::string& transactionTypeId,
                                    VIServiceControllerCallbackIf* callback) {
    if (callback == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        subscribers_.push_back({transactionTypeId, callback, std::nullopt});
    }
    Deliver();
}

void ServiceStateMonitor::ConnectionFailed() {
    if (thread_.joinable()) {
        connectionFailed_ = true;
        Signal(wakeFd_.Get());
    }
}

void ServiceStateMonitor::SetMeasured(std::uint8_t state) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (measured_ == state) {
            return;
        }
        measured_ = state;
    }
    CSCLogging::Info(CSCLogEntry() << "VIConnector: backend "
                                   << (state == kConnected ? "reachable" : "unreachable"));
    Deliver();
}

void ServiceStateMonitor::Resolve() {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host_.c_str(), nullptr, &hints, &found) != 0) {
        if (addresses_.empty()) {
            // Routed like any remote host until the name resolves.
            addresses_ = {"192.0.2.1", "2001:db8::1"};
        }
        return;
    }
    addresses_.clear();
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        char text[NI_MAXHOST];
        if (::getnameinfo(address->ai_addr, address->ai_addrlen, text, sizeof(text), nullptr, 0,
                          NI_NUMERICHOST) == 0) {
            addresses_.emplace_back(text);
        }
    }
    ::freeaddrinfo(found);
}

std::set<std::string> ServiceStateMonitor::RouteView() {
    std::set<std::string> view;
    for (const auto& address : addresses_) {
        auto route = routes_->RouteTo(address);
        if (!route.empty()) {
            view.insert(std::move(route));
        }
    }
    return view;
}

ServiceStateMonitor::Clock::duration ServiceStateMonitor::Jittered(Clock::duration wait) {
    std::uniform_real_distribution<double> factor(1.0 - kJitter, 1.0 + kJitter);
    return std::chrono::duration_cast<Clock::duration>(wait * factor(random_));
}

void ServiceStateMonitor::Run() {
    Resolve();
    std::optional<Clock::time_point> viewDue = now_();
    std::optional<Clock::time_point> probeDue;
    std::optional<std::set<std::string>> view;
    auto backoff = schedule_.retryMin;
    auto lastProbe = Clock::time_point::min();
    while (!stopping_) {
        const auto now = now_();
        const auto soon = std::max(now, lastProbe + kProbeGap);
        if (connectionFailed_.exchange(false)) {
            probeDue = std::min(probeDue.value_or(soon), soon);
        }
        if (viewDue && now >= *viewDue) {
            viewDue.reset();
            auto next = RouteView();
            if (next != view) {
                std::string text;
                for (const auto& route : next) {
                    text += (text.empty() ? "" : ", ") + route;
                }
                CSCLogging::Debug("VIConnector: routes to " + host_ + ": " +
                                  (text.empty() ? "none" : text));
                view = std::move(next);
                backoff = schedule_.retryMin;
                if (view->empty()) {
                    // Nothing can reach the backend: no probe needed to say so.
                    SetMeasured(kNotConnected);
                    probeDue = now + Jittered(backoff);
                } else {
                    probeDue = soon;
                }
            }
        }
        if (probeDue && now >= *probeDue) {
            const bool reachable = probe_(cancelFd_.Get());
            if (stopping_) {
                return;  // a probe cut short says nothing about the backend
            }
            lastProbe = now_();
            SetMeasured(reachable ? kConnected : kNotConnected);
            if (reachable) {
                Resolve();  // the name may point elsewhere now
                backoff = schedule_.retryMin;
                probeDue = lastProbe + Jittered(schedule_.interval);
            } else {
                probeDue = lastProbe + Jittered(backoff);
                backoff = std::min(backoff * 2, schedule_.retryMax);
            }
            continue;
        }
        auto deadline = Clock::time_point::max();
        for (const auto& due : {viewDue, probeDue}) {
            if (due) {
                deadline = std::min(deadline, *due);
            }
        }
        switch (routes_->Wait(deadline, wakeFd_.Get())) {
            case RouteSourceIf::Wakeup::kChange:
                if (!viewDue) {
                    viewDue = now_() + kSettle;
                }
                break;
            case RouteSourceIf::Wakeup::kWoken: {
                std::uint64_t count = 0;
                [[maybe_unused]] const auto read = ::read(wakeFd_.Get(), &count, sizeof(count));
                break;
            }
            case RouteSourceIf::Wakeup::kDeadline:
                break;
        }
    }
}

void ServiceStateMonitor::Deliver() {
    std::lock_guard<std::mutex> delivery(deliveryMutex_);
    std::vector<VIServiceControllerCallbackIf::SCConnectionStateUpdate> updates;
    std::vector<VIServiceControllerCallbackIf*> callbacks;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::uint8_t state = measured_;
        for (auto& subscriber : subscribers_) {
            if (subscriber.reported != state) {
                subscriber.reported = state;
                updates.push_back({subscriber.transactionTypeId, state});
                callbacks.push_back(subscriber.callback);
            }
        }
    }
    for (std::size_t i = 0; i < updates.size(); ++i) {
        callbacks[i]->VISCConnectionState(updates[i]);
    }
}

}  // namespace vi_connector
