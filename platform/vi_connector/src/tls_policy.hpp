#ifndef VI_CONNECTOR_TLS_POLICY_HPP
#define VI_CONNECTOR_TLS_POLICY_HPP

using SSL_CTX = struct ssl_ctx_st;

namespace vi_connector {

/// The one transport policy of the backend and the broker alike: TLS 1.2 or
/// later; TLS 1.2 only with ECDHE key exchange (forward secrecy) and AEAD
/// ciphers. TLS 1.3 keeps OpenSSL's own suites, all of them AEAD over an
/// ephemeral key exchange.
inline constexpr const char* kTls12Ciphers = "ECDHE+AESGCM:ECDHE+CHACHA20";

/// Applies the policy to a context of one's own; false, with OpenSSL's error
/// queue set, when the library refuses it.
bool ApplyTlsPolicy(SSL_CTX* context);

/// Keeps private keys loaded from now on in OpenSSL's secure heap (locked,
/// left out of core dumps). Call before the first key is loaded; later calls
/// do nothing. Without one (RLIMIT_MEMLOCK, ...) one warning, and keys stay in
/// ordinary memory.
void UseSecureHeapForKeys();

}  // namespace vi_connector

#endif  // VI_CONNECTOR_TLS_POLICY_HPP
