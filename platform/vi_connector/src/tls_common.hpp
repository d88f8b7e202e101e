#ifndef VI_CONNECTOR_TLS_COMMON_HPP
#define VI_CONNECTOR_TLS_COMMON_HPP

#include <string>

using SSL = struct ssl_st;
using SSL_CTX = struct ssl_ctx_st;

namespace vi_connector {

/// The last OpenSSL error as text (the queue is cleared); `whenNone` without one.
std::string OpenSslError(const char* whenNone = "no detail");
/// A certificate verification result as a log line names it.
std::string VerifyReason(long result);
/// Makes the handshake verify that the peer's certificate names `host`, and sends it as SNI
/// when it is a name. False when OpenSSL cannot take it: the caller must not connect then.
bool ExpectPeerName(SSL* ssl, const std::string& host);
/// A passphrase callback that never prompts on a terminal: encrypted keys fail.
int NoPassphrase(char* buffer, int size, int rwflag, void* user);

/// Reads the private key at `path` as a secret file, hands it to `context`
/// and wipes its text. False with `error` set ("<keyName>: ..." when the file
/// breaks the rule, else naming the path) when it cannot be used.
bool UseClientKey(SSL_CTX* context, const std::string& path, const std::string& keyName,
                  std::string& error);

}  // namespace vi_connector

#endif  // VI_CONNECTOR_TLS_COMMON_HPP
