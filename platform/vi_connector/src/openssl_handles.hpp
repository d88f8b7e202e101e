#ifndef VI_CONNECTOR_OPENSSL_HANDLES_HPP
#define VI_CONNECTOR_OPENSSL_HANDLES_HPP

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>

#include <memory>

namespace vi_connector {

/// Frees an OpenSSL object with the function its type needs.
struct OpenSslFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

using SslCtxPtr = std::unique_ptr<SSL_CTX, OpenSslFree>;
using SslPtr = std::unique_ptr<SSL, OpenSslFree>;
using SslSessionPtr = std::unique_ptr<SSL_SESSION, OpenSslFree>;
using BioPtr = std::unique_ptr<BIO, OpenSslFree>;
using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, OpenSslFree>;

}  // namespace vi_connector

#endif  // VI_CONNECTOR_OPENSSL_HANDLES_HPP
