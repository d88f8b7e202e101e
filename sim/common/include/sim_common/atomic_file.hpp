#ifndef SIM_COMMON_ATOMIC_FILE_HPP
#define SIM_COMMON_ATOMIC_FILE_HPP

#include <string>

namespace sim_common {

/// Replaces the file at `path` with `content` so that, whenever the process
/// dies or the machine loses power, the file holds either the old or the new
/// content: write a temporary file beside it, fsync it, rename it over the
/// old one, fsync the directory. On failure returns false with a reason in
/// `error` and leaves the old file as it was. Once renamed the write is
/// committed and true returned; `error` is then empty, or says why the
/// directory could not be synced (the new content may not survive a power loss).
bool WriteFileAtomically(const std::string& path, const std::string& content, std::string& error,
                         unsigned int mode = 0644);

/// Removes temporary files that a writer killed mid-way left beside `path`.
void RemoveStaleTemporaries(const std::string& path);

}  // namespace sim_common

#endif  // SIM_COMMON_ATOMIC_FILE_HPP
