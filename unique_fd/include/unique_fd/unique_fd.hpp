#ifndef UNIQUE_FD_UNIQUE_FD_HPP
#define UNIQUE_FD_UNIQUE_FD_HPP

#include <unistd.h>

#include <utility>

namespace unique_fd {

/// The one owner of a file descriptor: closes it when destroyed or reset.
/// close() is not retried on EINTR: on Linux the descriptor is gone either
/// way, and a retry could close one another thread has just opened.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    /// Gives the descriptor up without closing it; -1 when there is none.
    int Release() { return std::exchange(fd_, -1); }
    /// Closes the descriptor now; false when close() fails, which for a file
    /// written through it may be the first report of a failed write.
    bool Close() { return ::close(Release()) == 0; }
    /// Closes the descriptor held, if any, and takes `fd`.
    void Reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            ::close(old);
        }
    }

private:
    int fd_ = -1;
};

}  // namespace unique_fd

#endif  // UNIQUE_FD_UNIQUE_FD_HPP
