#ifndef VI_CONNECTOR_RECONNECT_POLICY_HPP
#define VI_CONNECTOR_RECONNECT_POLICY_HPP

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <optional>

namespace vi_connector {

/// When to try the broker again, and which events are worth a line above
/// debug level. The wait is an exponential back-off with full jitter that
/// starts over only once a link has held for kStableAfter, so a broker that
/// accepts and then drops every connection meets a growing wait, never more
/// than kMaxAttemptsPerMinute attempts in any minute. An outage (from a loss
/// or refusal reported until a link holds) is told once when it begins, once
/// when the link returns, and once more if that return does not hold.
class ReconnectPolicy {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Clock = std::function<TimePoint()>;
    /// A whole number of milliseconds from 0 to the given ceiling.
    using Draw = std::function<int(int ceilingMs)>;
    struct Down {
        std::chrono::milliseconds wait;
        bool report;  // at warning (or error) level; otherwise at debug level
    };

    static constexpr auto kStableAfter = std::chrono::seconds(60);
    static constexpr std::size_t kMaxAttemptsPerMinute = 12;

    /// Without `now` and `draw`: the steady clock and a uniform random draw.
    ReconnectPolicy(int minDelayMs, int maxDelayMs, Clock now = {}, Draw draw = {});

    /// A connection attempt begins.
    void Attempt();
    /// The broker accepted the session: true when that is worth an info line
    /// (the first link, or the first return after a reported loss).
    bool Up();
    /// The attempt failed or the link went down: how long to wait before the
    /// next attempt, and whether to report it.
    Down LinkDown();

private:
    int minDelayMs_;
    int maxDelayMs_;
    Clock now_;
    Draw draw_;
    int ceilingMs_;
    std::deque<TimePoint> attempts_;  // the last kMaxAttemptsPerMinute
    std::optional<TimePoint> upSince_;
    bool everUp_ = false;
    bool inOutage_ = false;
    bool returned_ = false;        // the link came back during this outage
    bool returnLostTold_ = false;  // and its loss was reported
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_RECONNECT_POLICY_HPP
