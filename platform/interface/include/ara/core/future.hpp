#ifndef ARA_CORE_FUTURE_HPP
#define ARA_CORE_FUTURE_HPP

#include <chrono>
#include <exception>
#include <future>
#include <utility>

namespace ara::core {

enum class FutureStatus { kReady, kTimeout };

/// The result of a method call that may not have arrived yet. get() waits for
/// it and returns the output, or throws what the call raised (an
/// ara::com::ApplicationErrorException for an error the service declared).
template <typename T>
class Future {
public:
    Future() noexcept = default;
    explicit Future(std::future<T> future) noexcept : future_(std::move(future)) {}

    T get() { return future_.get(); }
    bool valid() const noexcept { return future_.valid(); }
    void wait() const { future_.wait(); }
    template <typename Rep, typename Period>
    FutureStatus wait_for(const std::chrono::duration<Rep, Period>& timeout) const {
        return future_.wait_for(timeout) == std::future_status::ready ? FutureStatus::kReady
                                                                      : FutureStatus::kTimeout;
    }
    bool is_ready() const {
        return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

private:
    std::future<T> future_;
};

}  // namespace ara::core

#endif  // ARA_CORE_FUTURE_HPP
