#include "broker_tls.hpp"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include "secret_file.hpp"
#include "tls_policy.hpp"

namespace vi_connector {
namespace {

constexpr std::size_t kMaxKeyFileBytes = 64 * 1024;

std::string OpenSslError() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    if (code == 0) {
        return "no detail";
    }
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return text;
}

int NoPassphrase(char* /*buffer*/, int /*size*/, int /*rwflag*/, void* /*user*/) {
    return -1;  // never prompt on a terminal
}

}  // namespace

std::shared_ptr<SSL_CTX> MakeBrokerTlsContext(const MqttSettings& settings, std::string& error) {
    if (settings.tlsCaFile.empty()) {
        error = "tls_ca_file is required for TLS";
        return nullptr;
    }
    if (settings.tlsCertFile.empty() != settings.tlsKeyFile.empty()) {
        error = "tls_cert_file and tls_key_file go together";
        return nullptr;
    }
    std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    if (!context) {
        error = "cannot create a TLS context: " + OpenSslError();
        return nullptr;
    }
    if (!ApplyTlsPolicy(context.get())) {
        error = "cannot apply the TLS policy: " + OpenSslError();
        return nullptr;
    }
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(context.get(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_default_passwd_cb(context.get(), NoPassphrase);
    if (SSL_CTX_load_verify_locations(context.get(), settings.tlsCaFile.c_str(), nullptr) != 1) {
        error = "tls_ca_file '" + settings.tlsCaFile + "' cannot be used: " + OpenSslError();
        return nullptr;
    }
    if (settings.tlsCertFile.empty()) {
        return context;
    }
    if (SSL_CTX_use_certificate_chain_file(context.get(), settings.tlsCertFile.c_str()) != 1) {
        error = "tls_cert_file '" + settings.tlsCertFile + "' cannot be used: " + OpenSslError();
        return nullptr;
    }
    std::string reason;
    auto pem = ReadSecretFile(settings.tlsKeyFile, kMaxKeyFileBytes, reason);
    if (!pem) {
        error = "tls_key_file: " + reason;
        return nullptr;
    }
    BIO* bio = BIO_new_mem_buf(pem->data(), static_cast<int>(pem->size()));
    EVP_PKEY* key =
        bio == nullptr ? nullptr : PEM_read_bio_PrivateKey(bio, nullptr, NoPassphrase, nullptr);
    BIO_free(bio);
    OPENSSL_cleanse(&(*pem)[0], pem->size());
    const bool used = key != nullptr && SSL_CTX_use_PrivateKey(context.get(), key) == 1 &&
                      SSL_CTX_check_private_key(context.get()) == 1;
    EVP_PKEY_free(key);
    if (!used) {
        error = "the key in '" + settings.tlsKeyFile +
                "' is unreadable, encrypted or does not match the certificate: " + OpenSslError();
        return nullptr;
    }
    return context;
}

}  // namespace vi_connector
