#ifndef TEST_SUPPORT_THREAD_STATE_HPP
#define TEST_SUPPORT_THREAD_STATE_HPP

#include <sys/types.h>

namespace kelvane::testing {

pid_t CurrentThreadId();

/// True while thread `tid` of this process sleeps in the kernel (waits in a
/// system call or on a lock), as /proc shows it: a test can tell that another
/// thread has reached a blocking call without sleeping itself.
bool ThreadIsBlocked(pid_t tid);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_THREAD_STATE_HPP
