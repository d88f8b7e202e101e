#include "secret_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "csc_logging/csc_logging.hpp"

namespace vi_connector {
namespace {

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace

std::optional<std::string> ReadSecretFile(const std::string& path, std::size_t maxBytes,
                                          std::string& error) {
    // O_NONBLOCK: a FIFO planted in place of the file must not hang the caller.
    const Descriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) {
        error = "'" + path + "' cannot be opened: " +
                (errno == ELOOP ? std::string("it is a symbolic link") : std::strerror(errno));
        return std::nullopt;
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0) {
        error = "'" + path + "' cannot be examined: " + std::strerror(errno);
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        error = "'" + path + "' is not a regular file";
        return std::nullopt;
    }
    if (static_cast<std::size_t>(status.st_size) > maxBytes) {
        error = "'" + path + "' is larger than " + std::to_string(maxBytes) + " bytes";
        return std::nullopt;
    }
    if ((status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        csc_logging::CSCLogging::Warning("VIConnector: secret file '" + path +
                                         "' can be read by group or others");
    }
    std::string content(maxBytes + 1, '\0');
    std::size_t used = 0;
    while (used < content.size()) {
        const ssize_t count = ::read(fd.get(), &content[used], content.size() - used);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            error = "'" + path + "' cannot be read: " + std::strerror(errno);
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        used += static_cast<std::size_t>(count);
    }
    // The file may have grown after fstat.
    if (used > maxBytes) {
        error = "'" + path + "' is larger than " + std::to_string(maxBytes) + " bytes";
        return std::nullopt;
    }
    content.resize(used);
    return content;
}

}  // namespace vi_connector
