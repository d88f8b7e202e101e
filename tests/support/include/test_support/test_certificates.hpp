#ifndef TEST_SUPPORT_TEST_CERTIFICATES_HPP
#define TEST_SUPPORT_TEST_CERTIFICATES_HPP

#include <string>

namespace kelvane::testing {

/// Throwaway PKI for TLS tests, made with the openssl tool in `directory`
/// (P-256 keys unless told, PEM files):
///   ca.pem                   the trusted CA
///   server.pem/.key          for 127.0.0.1 and localhost, issued by ca
///   server-rsa.pem/.key      the same with an RSA 2048 key
///   client.pem/.key          client certificate, issued by ca
///   other-name.pem/.key      for other.example only, issued by ca
///   expired.pem/.key         for 127.0.0.1, issued by ca, expired yesterday
///   unknown-issuer.pem/.key  for 127.0.0.1, issued by a CA nobody trusts
/// Throws with openssl's output when it fails.
void MakeTestCertificates(const std::string& directory);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_TEST_CERTIFICATES_HPP
