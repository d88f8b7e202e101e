#include "secret_file.hpp"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "unique_fd/unique_fd.hpp"

namespace vi_connector {
namespace {

using unique_fd::UniqueFd;

// Opens `path` and checks the file behind the descriptor against the rule, so
// that what is checked is what is read. None and `error` when it breaks the rule.
UniqueFd OpenSecret(const std::string& path, struct stat& status, std::string& error) {
    // O_NONBLOCK: a FIFO planted in place of the file must not hang the caller.
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    const auto broken = [&](const std::string& problem) {
        error = "'" + path + "' " + problem;
        return UniqueFd();
    };
    if (!fd) {
        return broken("cannot be opened: " + (errno == ELOOP ? std::string("it is a symbolic link")
                                                             : std::strerror(errno)));
    }
    if (::fstat(fd.Get(), &status) != 0) {
        return broken(std::string("cannot be examined: ") + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return broken("is not a regular file");
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
        return broken("is owned by uid " + std::to_string(status.st_uid) +
                      ", neither root nor the service user (uid " + std::to_string(::geteuid()) +
                      ")");
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return broken("can be written by group or others (chmod go-w)");
    }
    if ((status.st_mode & S_IROTH) != 0) {
        return broken("can be read by others (chmod o-r)");
    }
    return fd;
}

}  // namespace

std::optional<std::string> ReadSecretFile(const std::string& path, std::size_t maxBytes,
                                          std::string& error) {
    struct stat status {};
    const UniqueFd fd = OpenSecret(path, status, error);
    if (!fd) {
        return std::nullopt;
    }
    if (static_cast<std::size_t>(status.st_size) > maxBytes) {
        error = "'" + path + "' is larger than " + std::to_string(maxBytes) + " bytes";
        return std::nullopt;
    }
    std::string content(maxBytes + 1, '\0');
    std::size_t used = 0;
    while (used < content.size()) {
        const ssize_t count = ::read(fd.Get(), &content[used], content.size() - used);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            error = "'" + path + "' cannot be read: " + std::strerror(errno);
            OPENSSL_cleanse(&content[0], used);
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
        OPENSSL_cleanse(&content[0], used);
        return std::nullopt;
    }
    content.resize(used);
    return content;
}

bool CheckSecretFile(const std::string& path, std::string& error) {
    struct stat status {};
    return static_cast<bool>(OpenSecret(path, status, error));
}

}  // namespace vi_connector
