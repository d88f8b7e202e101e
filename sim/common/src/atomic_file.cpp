#include "sim_common/atomic_file.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "unique_fd/unique_fd.hpp"

namespace sim_common {
namespace {

constexpr const char* kTemporaryMarker = ".tmp-";

std::string DirectoryOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseNameOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Reason(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

bool WriteAll(int fd, const std::string& content) {
    std::size_t written = 0;
    while (written < content.size()) {
        const ssize_t n = ::write(fd, content.data() + written, content.size() - written);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        written += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

bool WriteFileAtomically(const std::string& path, const std::string& content, std::string& error,
                         unsigned int mode) {
    error.clear();
    static std::atomic<unsigned> sequence{0};
    const std::string temporary = path + kTemporaryMarker + std::to_string(::getpid()) + "-" +
                                  std::to_string(sequence.fetch_add(1));
    unique_fd::UniqueFd fd(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!fd) {
        error = Reason("cannot create", temporary);
        return false;
    }
    if (!WriteAll(fd.Get(), content) || ::fsync(fd.Get()) != 0) {
        error = Reason("cannot write", temporary);
        fd.Reset();
        ::unlink(temporary.c_str());
        return false;
    }
    if (!fd.Close()) {
        error = Reason("cannot close", temporary);
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        error = Reason("cannot rename onto", path);
        ::unlink(temporary.c_str());
        return false;
    }
    // Committed: readers see the new content from here on. The rename is
    // durable only once the directory entry is on disk; failing that is worth
    // a warning, not a failure (the old content is gone already).
    const std::string directory = DirectoryOf(path);
    const unique_fd::UniqueFd dirFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd) {
        error = Reason("cannot open directory", directory);
        return true;
    }
    if (::fsync(dirFd.Get()) != 0) {
        error = Reason("cannot sync directory", directory);
    }
    return true;
}

void RemoveStaleTemporaries(const std::string& path) {
    const std::string directory = DirectoryOf(path);
    const std::string prefix = BaseNameOf(path) + kTemporaryMarker;
    DIR* dir = ::opendir(directory.c_str());
    if (dir == nullptr) {
        return;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) == 0) {
            ::unlink((directory + "/" + name).c_str());
        }
    }
    ::closedir(dir);
}

}  // namespace sim_common
