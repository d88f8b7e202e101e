#ifndef VI_CONNECTOR_SERVICE_STATE_MONITOR_HPP
#define VI_CONNECTOR_SERVICE_STATE_MONITOR_HPP

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "vi_connector/vi_service_controller_callback_if.hpp"

namespace vi_connector {

struct ConnectorConfig;

/// Decides the connection state of the backend's transaction types and reports
/// it to subscribers: once when they subscribe and then on every change.
///
/// The state is either fixed or measured by a reachability probe that runs on
/// the monitor's own thread, at once and then every interval; a test can force
/// it. The first report of a subscriber is made from the subscribing thread,
/// later ones from whichever thread changed the state; reports never overlap
/// and arrive in the order of the changes. A callback must not subscribe.
class ServiceStateMonitor {
public:
    static constexpr std::uint8_t kNotConnected = 1;
    static constexpr std::uint8_t kConnected = 2;

    /// True when the backend answers. `cancelFd` becomes readable when the
    /// monitor stops; a probe that may block should give up then.
    using Probe = std::function<bool(int cancelFd)>;

    /// A state fixed by configuration; no thread.
    explicit ServiceStateMonitor(std::uint8_t fixedState);
    /// Not connected until the first probe has answered.
    ServiceStateMonitor(Probe probe, std::chrono::milliseconds interval);
    /// Stops the probe thread, interrupting a wait or a blocked probe.
    ~ServiceStateMonitor();
    ServiceStateMonitor(const ServiceStateMonitor&) = delete;
    ServiceStateMonitor& operator=(const ServiceStateMonitor&) = delete;

    /// Fixed or probing as `[connection_state]` says; the probe connects to
    /// probe_host:probe_port, by default to the host and port of the first
    /// transaction URL.
    static std::unique_ptr<ServiceStateMonitor> FromConfig(const ConnectorConfig& config);

    void Subscribe(const std::string& transactionTypeId, VIServiceControllerCallbackIf* callback);

private:
    struct Subscriber {
        std::string transactionTypeId;
        VIServiceControllerCallbackIf* callback = nullptr;
        std::optional<std::uint8_t> reported;
    };

    void Run(std::chrono::milliseconds interval);
    void SetMeasured(std::uint8_t state);
    void Deliver();

    Probe probe_;
    int cancelFd_ = -1;
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
