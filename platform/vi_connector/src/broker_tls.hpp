#ifndef VI_CONNECTOR_BROKER_TLS_HPP
#define VI_CONNECTOR_BROKER_TLS_HPP

#include <memory>
#include <string>

#include "connector_config.hpp"

using SSL_CTX = struct ssl_ctx_st;

namespace vi_connector {

/// The TLS context of the broker link from [mqtt] tls_ca_file, tls_cert_file and
/// tls_key_file: the broker's chain and name are verified, the client
/// certificate is sent when one is set. Empty and one sentence in `error` when a
/// file cannot be used.
std::shared_ptr<SSL_CTX> MakeBrokerTlsContext(const MqttSettings& settings, std::string& error);

}  // namespace vi_connector

#endif  // VI_CONNECTOR_BROKER_TLS_HPP
