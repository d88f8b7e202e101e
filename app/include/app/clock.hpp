#ifndef APP_CLOCK_HPP
#define APP_CLOCK_HPP

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>

namespace kelvane_client {

/// The system clock the client schedules by, and the one wait that depends on
/// it. Tests derive a clock that they move by hand.
class Clock {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    virtual ~Clock() = default;

    virtual TimePoint Now() const { return std::chrono::system_clock::now(); }

    /// Waits on `cv` (`lock` held) until `wake()` holds or, when a deadline is
    /// given, Now() has reached it. Spurious wake-ups wait again.
    virtual void Wait(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                      std::optional<TimePoint> deadline, const std::function<bool()>& wake) {
        if (deadline) {
            cv.wait_until(lock, *deadline, wake);
        } else {
            cv.wait(lock, wake);
        }
    }
};

}  // namespace kelvane_client

#endif  // APP_CLOCK_HPP
