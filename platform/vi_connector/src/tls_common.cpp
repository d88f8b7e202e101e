#include "tls_common.hpp"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include "openssl_handles.hpp"
#include "secret_file.hpp"

namespace vi_connector {
namespace {

constexpr std::size_t kMaxKeyFileBytes = 64 * 1024;

}  // namespace

std::string OpenSslError(const char* whenNone) {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    if (code == 0) {
        return whenNone;
    }
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return text;
}

std::string VerifyReason(long result) {
    switch (result) {
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            return "unknown issuer";
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return "name mismatch";
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return "expired";
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return "not yet valid";
        default:
            return "certificate rejected";
    }
}

bool ExpectPeerName(SSL* ssl, const std::string& host) {
    // Certificates name an address as an IP, never as a DNS name; SNI carries names only.
    unsigned char address[16];
    if (::inet_pton(AF_INET, host.c_str(), address) == 1 ||
        ::inet_pton(AF_INET6, host.c_str(), address) == 1) {
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1;
    }
    return SSL_ctrl(ssl, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                    const_cast<char*>(host.c_str())) == 1 &&
           SSL_set1_host(ssl, host.c_str()) == 1;
}

int NoPassphrase(char* /*buffer*/, int /*size*/, int /*rwflag*/, void* /*user*/) {
    return -1;
}

bool UseClientKey(SSL_CTX* context, const std::string& path, const std::string& keyName,
                  std::string& error) {
    std::string reason;
    auto pem = ReadSecretFile(path, kMaxKeyFileBytes, reason);
    if (!pem) {
        error = keyName + ": " + reason;
        return false;
    }
    BioPtr bio(BIO_new_mem_buf(pem->data(), static_cast<int>(pem->size())));
    const EvpPkeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassphrase, nullptr)
                             : nullptr);
    bio.reset();
    OPENSSL_cleanse(&(*pem)[0], pem->size());
    const bool used = key && SSL_CTX_use_PrivateKey(context, key.get()) == 1 &&
                      SSL_CTX_check_private_key(context) == 1;
    if (!used) {
        error = "the key in '" + path +
                "' is unreadable, encrypted or does not match the certificate: " + OpenSslError();
    }
    return used;
}

}  // namespace vi_connector
