#include "test_support/thread_state.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace kelvane::testing {

pid_t CurrentThreadId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool ThreadIsBlocked(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // The state follows the command name, which is in parentheses and may hold spaces.
    const auto afterName = line.rfind(')');
    return afterName != std::string::npos && afterName + 2 < line.size() &&
           (line[afterName + 2] == 'S' || line[afterName + 2] == 'D');
}

}  // namespace kelvane::testing
