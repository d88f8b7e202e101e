#ifndef ARA_CORE_FUTURE_HPP
#define ARA_CORE_FUTURE_HPP

#include <chrono>
#include <exception>
#include <future>
#include <type_traits>
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

template <typename T>
class Promise {
public:
    Future<T> get_future() { return Future<T>(promise_.get_future()); }
    template <typename U = T>
    void set_value(U&& value) {
        promise_.set_value(std::forward<U>(value));
    }
    void SetException(std::exception_ptr error) { promise_.set_exception(std::move(error)); }

private:
    std::promise<T> promise_;
};

template <>
class Promise<void> {
public:
    Future<void> get_future() { return Future<void>(promise_.get_future()); }
    void set_value() { promise_.set_value(); }
    void SetException(std::exception_ptr error) { promise_.set_exception(std::move(error)); }

private:
    std::promise<void> promise_;
};

/// A future that already holds the outcome of `call`: its value, or what it threw.
template <typename Call>
auto MakeReadyFuture(Call&& call) -> Future<decltype(call())> {
    using T = decltype(call());
    std::promise<T> promise;
    try {
        if constexpr (std::is_void_v<T>) {
            call();
            promise.set_value();
        } else {
            promise.set_value(call());
        }
    } catch (...) {
        promise.set_exception(std::current_exception());
    }
    return Future<T>(promise.get_future());
}

}  // namespace ara::core

#endif  // ARA_CORE_FUTURE_HPP
