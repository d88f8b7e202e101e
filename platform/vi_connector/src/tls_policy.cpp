#include "tls_policy.hpp"

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <mutex>

#include "csc_logging/csc_logging.hpp"

namespace vi_connector {
namespace {

// Room for a few keys and the PEM text they are decoded from; more falls back
// to ordinary memory.
constexpr std::size_t kSecureHeapBytes = 64 * 1024;
constexpr std::size_t kSecureHeapMinimumAllocation = 32;

}  // namespace

bool ApplyTlsPolicy(SSL_CTX* context) {
    return SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 &&
           SSL_CTX_set_cipher_list(context, kTls12Ciphers) == 1;
}

void UseSecureHeapForKeys() {
    static std::once_flag once;
    std::call_once(once, [] {
        const int done = CRYPTO_secure_malloc_init(kSecureHeapBytes, kSecureHeapMinimumAllocation);
        if (done == 0) {
            csc_logging::CSCLogging::Warning(
                "VIConnector: no secure heap for private keys: they stay in ordinary memory");
        } else if (done == 2) {
            csc_logging::CSCLogging::Warning(
                "VIConnector: the secure heap for private keys is not fully protected (locking "
                "or guard pages failed, e.g. RLIMIT_MEMLOCK): they may be swapped out");
        }
    });
}

}  // namespace vi_connector
