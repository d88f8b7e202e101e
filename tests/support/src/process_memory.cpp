#include "test_support/process_memory.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "unique_fd/unique_fd.hpp"

namespace kelvane::testing {

std::size_t CountInProcessMemory(pid_t pid, std::string_view bytes) {
    const std::string proc = "/proc/" + std::to_string(pid);
    std::ifstream maps(proc + "/maps");
    const unique_fd::UniqueFd mem(::open((proc + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
    if (!maps || !mem) {
        throw std::runtime_error("cannot open the memory of " + proc + ": " + std::strerror(errno));
    }
    constexpr std::size_t kChunk = 1 << 20;
    const std::size_t keep = bytes.size() - 1;  // a match may straddle two chunks
    std::vector<char> buffer(keep + kChunk);
    std::size_t count = 0;
    std::size_t bytesRead = 0;
    for (std::string line; std::getline(maps, line);) {
        unsigned long start = 0;
        unsigned long end = 0;
        char readable = '-';
        std::sscanf(line.c_str(), "%lx-%lx %c", &start, &end, &readable);
        std::size_t carried = 0;
        for (unsigned long at = start; readable == 'r' && at < end;) {
            const std::size_t want = std::min<unsigned long>(kChunk, end - at);
            const ssize_t got =
                ::pread(mem.Get(), buffer.data() + carried, want, static_cast<off_t>(at));
            // Some pages cannot be read ([vvar], a file mapping past the file's end, a
            // region unmapped since the list was read): the rest of the region is skipped.
            if (got <= 0) {
                break;
            }
            bytesRead += static_cast<std::size_t>(got);
            const std::string_view window(buffer.data(), carried + static_cast<std::size_t>(got));
            for (auto found = window.find(bytes); found != std::string_view::npos;
                 found = window.find(bytes, found + bytes.size())) {
                ++count;
            }
            // Carry the tail that cannot hold a whole match already counted.
            carried = std::min(keep, window.size());
            std::memmove(buffer.data(), window.data() + window.size() - carried, carried);
            at += static_cast<unsigned long>(got);
        }
    }
    if (bytesRead == 0) {
        throw std::runtime_error("cannot read the memory of " + proc);
    }
    return count;
}

}  // namespace kelvane::testing
