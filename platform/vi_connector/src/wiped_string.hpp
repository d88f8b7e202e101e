#ifndef VI_CONNECTOR_WIPED_STRING_HPP
#define VI_CONNECTOR_WIPED_STRING_HPP

#include <openssl/crypto.h>

#include <string>

namespace vi_connector {

/// Zeroes the whole buffer of `secret`, spare capacity included, and empties it.
inline void Wipe(std::string& secret) {
    // Within the capacity resize never reallocates.
    secret.resize(secret.capacity());
    OPENSSL_cleanse(secret.data(), secret.size());
    secret.clear();
}

/// Wipes a string that holds a secret when the scope ends, however it ends.
class WipeOnExit {
public:
    explicit WipeOnExit(std::string& secret) : secret_(secret) {}
    ~WipeOnExit() { Wipe(secret_); }
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;

private:
    std::string& secret_;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_WIPED_STRING_HPP
