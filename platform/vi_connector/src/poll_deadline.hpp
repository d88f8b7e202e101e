#ifndef VI_CONNECTOR_POLL_DEADLINE_HPP
#define VI_CONNECTOR_POLL_DEADLINE_HPP

#include <algorithm>
#include <chrono>
#include <climits>

namespace vi_connector {

/// poll()'s time-out for waiting until `deadline`: -1 for none (time_point::max()),
/// 0 once it has passed. Rounded up: waking a little early would only poll again.
inline int RemainingMs(std::chrono::steady_clock::time_point deadline) {
    if (deadline == std::chrono::steady_clock::time_point::max()) {
        return -1;
    }
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) {
        return 0;
    }
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::min<long long>(ms, INT_MAX));
}

}  // namespace vi_connector

#endif  // VI_CONNECTOR_POLL_DEADLINE_HPP
