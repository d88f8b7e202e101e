#include "secret_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "csc_logging/csc_logging.hpp"

namespace vi_connector {

std::optional<std::string> ReadSecretFile(const std::string& path, std::size_t maxBytes,
                                          std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        error = "cannot open '" + path + "': " + std::strerror(errno);
        return std::nullopt;
    }
    struct stat status {};
    std::optional<std::string> content;
    if (::fstat(fd, &status) != 0) {
        error = "cannot inspect '" + path + "': " + std::strerror(errno);
    } else if (!S_ISREG(status.st_mode)) {
        error = "'" + path + "' is not a regular file";
    } else if (static_cast<std::size_t>(status.st_size) > maxBytes) {
        error = "'" + path + "' is larger than " + std::to_string(maxBytes) + " bytes";
    } else {
        if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
            csc_logging::CSCLogging::Warning("VIConnector: '" + path +
                                             "' is readable by group or others");
        }
        std::string text(maxBytes + 1, '\0');
        std::size_t used = 0;
        while (used < text.size()) {
            const ssize_t got = ::read(fd, &text[used], text.size() - used);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                break;
            }
            used += static_cast<std::size_t>(got);
        }
        if (used > maxBytes) {
            error = "'" + path + "' is larger than " + std::to_string(maxBytes) + " bytes";
        } else {
            text.resize(used);
            content = std::move(text);
        }
    }
    ::close(fd);
    return content;
}

}  // namespace vi_connector
