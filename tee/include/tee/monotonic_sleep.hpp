#ifndef TEE_MONOTONIC_SLEEP_HPP
#define TEE_MONOTONIC_SLEEP_HPP

#include <chrono>

namespace qervo::tee {

/// Sleeps on the monotonic clock until `duration` has passed, signals or not.
void MonotonicSleep(std::chrono::seconds duration);

}  // namespace qervo::tee

#endif  // TEE_MONOTONIC_SLEEP_HPP
