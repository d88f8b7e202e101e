#ifndef TEST_SUPPORT_PROCESS_MEMORY_HPP
#define TEST_SUPPORT_PROCESS_MEMORY_HPP

#include <sys/types.h>

#include <cstddef>
#include <string_view>

namespace kelvane::testing {

/// How often `bytes` occur in the readable memory of process `pid` (heap,
/// stacks, anonymous and file mappings), read through /proc/<pid>/maps and
/// /proc/<pid>/mem. Reading a process that made itself non-dumpable takes
/// CAP_SYS_PTRACE (root has it). Throws std::runtime_error when the memory
/// cannot be read, so an unreadable process never passes for a clean one.
std::size_t CountInProcessMemory(pid_t pid, std::string_view bytes);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_PROCESS_MEMORY_HPP
