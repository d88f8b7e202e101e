#ifndef VI_CONNECTOR_SERVICE_STATE_MONITOR_HPP
#define VI_CONNECTOR_SERVICE_STATE_MONITOR_HPP

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "route_source_if.hpp"
#include "unique_fd/unique_fd.hpp"
#include "vi_connector/vi_service_controller_callback_if.hpp"

namespace vi_connector {

struct ConnectorConfig;

/// Decides the connection state of the backend's transaction types and reports
/// it to subscribers: once when they subscribe and then on every change.
///
/// The state is either fixed or judged on the monitor's own thread from what
/// the kernel knows: no route to the backend (or its link down) is not
/// connected at once; a route that appears or changes is confirmed by a probe
/// (a TCP connect). Otherwise a probe runs only now and then: every interval
/// while the backend answers, backing off from retryMin to retryMax while it
/// does not, each wait jittered by ±20 % so that a fleet does not probe in
/// step. A failed backend connection asks for a probe too.
///
/// The first report of a subscriber is made from the subscribing thread,
/// later ones from whichever thread changed the state; reports never overlap
/// and arrive in the order of the changes. A callback must not subscribe.
class ServiceStateMonitor {
public:
    static constexpr std::uint8_t kNotConnected = 1;
    static constexpr std::uint8_t kConnected = 2;

    using Clock = std::chrono::steady_clock;
    /// True when the backend answers. `cancelFd` becomes readable when the
    /// monitor stops; a probe that may block should give up then.
    using Probe = std::function<bool(int cancelFd)>;

    struct Schedule {
        Clock::duration interval = std::chrono::minutes(10);
        Clock::duration retryMin = std::chrono::seconds(5);
        Clock::duration retryMax = std::chrono::minutes(5);
    };

    /// A state fixed by configuration; no thread.
    explicit ServiceStateMonitor(std::uint8_t fixedState);
    /// Not connected until the first probe has answered. `host` (a name or a
    /// numeric address) is where the routes are looked up to.
    ServiceStateMonitor(Probe probe, std::string host, std::unique_ptr<RouteSourceIf> routes,
                        Schedule schedule, std::function<Clock::time_point()> now = Clock::now);
    /// Stops the thread, interrupting a wait or a blocked probe.
    ~ServiceStateMonitor();
    ServiceStateMonitor(const ServiceStateMonitor&) = delete;
    ServiceStateMonitor& operator=(const ServiceStateMonitor&) = delete;

    /// Fixed or watching as `[connection_state]` says; the probe connects to
    /// probe_host:probe_port, by default to the host and port of the first
    /// transaction URL.
    static std::unique_ptr<ServiceStateMonitor> FromConfig(const ConnectorConfig& config);

    void Subscribe(const std::string& transactionTypeId, VIServiceControllerCallbackIf* callback);

    /// A connection to the backend failed: probe soon rather than wait for
    /// the next scheduled probe. Thread-safe.
    void ConnectionFailed();

private:
    struct Subscriber {
        std::string transactionTypeId;
        VIServiceControllerCallbackIf* callback = nullptr;
        std::optional<std::uint8_t> reported;
    };

    void Run();
    // The distinct routes to the backend's addresses; empty when it has none.
    std::set<std::string> RouteView();
    void Resolve();
    Clock::duration Jittered(Clock::duration wait);
    void SetMeasured(std::uint8_t state);
    void Deliver();

    Probe probe_;
    std::string host_;
    std::unique_ptr<RouteSourceIf> routes_;
    Schedule schedule_;
    std::function<Clock::time_point()> now_;
    std::vector<std::string> addresses_;  // of host_, the monitor thread's
    std::mt19937 random_;
    unique_fd::UniqueFd cancelFd_;
    unique_fd::UniqueFd wakeFd_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> connectionFailed_{false};
    std::thread thread_;

    mutable std::mutex mutex_;
    std::uint8_t measured_ = kNotConnected;
    std::vector<Subscriber> subscribers_;

    // Held while callbacks run, so that reports keep the order of the changes.
    std::mutex deliveryMutex_;
};

/// Host and port of an http:// or https:// URL (default ports 80 and 443,
/// IPv6 hosts in brackets); nothing when the URL has no host.
struct ProbeTarget {
    std::string host;
    std::uint16_t port = 0;
};
std::optional<ProbeTarget> ProbeTargetFromUrl(const std::string& url);

/// A TCP connect to host:port within `timeoutMs`, abandoned early when
/// `cancelFd` becomes readable. True when a connection was made.
bool TcpReachable(const std::string& host, std::uint16_t port, int timeoutMs, int cancelFd);

}  // namespace vi_connector

#endif  // VI_CONNECTOR_SERVICE_STATE_MONITOR_HPP
