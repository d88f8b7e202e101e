#include <thread>

namespace kelvane::testing {

template <typename Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds timeout,
               std::chrono::milliseconds interval) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(interval);
    }
    return true;
}

}  // namespace kelvane::testing
