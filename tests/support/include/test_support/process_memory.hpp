#ifndef TEST_SUPPORT_PROCESS_MEMORY_HPP
#define TEST_SUPPORT_PROCESS_MEMORY_HPP

#include <sys/types.h>

#include <cstddef>
#include <string_view>

namespace kelvane::testing {

/// How often `bytes` occur in the readable mappings of process `pid` (a non-dumpable one takes
/// CAP_SYS_PTRACE). Throws when nothing can be read: an unreadable process is never clean.
std::size_t CountInProcessMemory(pid_t pid, std::string_view bytes);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_PROCESS_MEMORY_HPP
