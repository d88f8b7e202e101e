#ifndef CSA_COMMON_SECURE_WIPE_HPP
#define CSA_COMMON_SECURE_WIPE_HPP

#include <string.h>

#include <cstddef>
#include <string>

namespace csa_common {

/// Zeroes `size` bytes at `data`; unlike memset the compiler may not drop it
/// because nothing reads the memory afterwards.
inline void SecureWipe(void* data, std::size_t size) noexcept {
    ::explicit_bzero(data, size);
}

/// Zeroes the whole buffer of `secret`, spare capacity included (earlier,
/// longer contents may linger there), and leaves it empty.
inline void SecureWipe(std::string& secret) noexcept {
    // Within the capacity resize never reallocates, so it cannot throw.
    secret.resize(secret.capacity());
    SecureWipe(secret.data(), secret.size());
    secret.clear();
}

/// Wipes a string that holds a secret when the scope ends, however it ends.
class WipeOnExit {
public:
    explicit WipeOnExit(std::string& secret) noexcept : secret_(secret) {}
    ~WipeOnExit() { SecureWipe(secret_); }
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;

private:
    std::string& secret_;
};

}  // namespace csa_common

#endif  // CSA_COMMON_SECURE_WIPE_HPP
