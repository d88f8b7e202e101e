#include "tee/monotonic_sleep.hpp"

#include <time.h>

#include <cerrno>

namespace qervo::tee {

void MonotonicSleep(std::chrono::seconds duration) {
    // An absolute deadline: a signal that interrupts the sleep neither ends
    // it early nor stretches it when it resumes.
    timespec deadline{};
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(duration.count());
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

}  // namespace qervo::tee
