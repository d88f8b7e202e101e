#include "broker_tls.hpp"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "tls_common.hpp"
#include "tls_policy.hpp"

namespace vi_connector {

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
    if (!UseClientKey(context.get(), settings.tlsKeyFile, "tls_key_file", error)) {
        return nullptr;
    }
    return context;
}

}  // namespace vi_connector
