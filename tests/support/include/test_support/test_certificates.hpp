#ifndef TEST_SUPPORT_TEST_CERTIFICATES_HPP
#define TEST_SUPPORT_TEST_CERTIFICATES_HPP

#include <string>

namespace kelvane::testing {

/// Throwaway PKI made with openssl in `directory`: ca.pem and, as NAME.pem/.key with P-256
/// keys, issued by ca: server (127.0.0.1 and localhost; server-rsa the same with RSA 2048),
/// client, other-name (other.example only), expired (127.0.0.1, yesterday), and unknown-issuer
/// (127.0.0.1, by a CA nobody trusts). Throws with openssl's output when it fails.
void MakeTestCertificates(const std::string& directory);

}  // namespace kelvane::testing

#endif  // TEST_SUPPORT_TEST_CERTIFICATES_HPP
