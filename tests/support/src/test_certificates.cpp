#include "test_support/test_certificates.hpp"

#include <chrono>
#include <stdexcept>

#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"

namespace kelvane::testing {

void MakeTestCertificates(const std::string& directory) {
    // issue NAME CA SAN DAYS [KEYGEN]
    const std::string script = R"(set -e
cd "$1"
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1"; }
rsa_key() { openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$1"; }
authority() {
    key "$1.key"
    openssl req -x509 -new -key "$1.key" -out "$1.pem" -days 2 -subj "/CN=$1"
}
issue() {
    "${5:-key}" "$1.key"
    openssl req -new -key "$1.key" -out "$1.csr" -subj "/CN=$1"
    printf '%s\n' "$3" >"$1.ext"
    openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -CAcreateserial -days "$4" \
        -extfile "$1.ext" -out "$1.pem"
}
authority ca
authority untrusted-ca
issue server ca 'subjectAltName=IP:127.0.0.1,DNS:localhost' 2
issue server-rsa ca 'subjectAltName=IP:127.0.0.1,DNS:localhost' 2 rsa_key
issue client ca 'extendedKeyUsage=clientAuth' 2
issue other-name ca 'subjectAltName=DNS:other.example' 2
issue expired ca 'subjectAltName=IP:127.0.0.1' -1
issue unknown-issuer untrusted-ca 'subjectAltName=IP:127.0.0.1' 2
chmod 600 ./*.key
)";
    const std::string log = directory + "/openssl.log";
    ChildProcess openssl({{"/bin/sh", "-c", script, "sh", directory}, {}, log});
    const auto status = openssl.WaitForExit(std::chrono::seconds(30));
    if (status != 0) {
        throw std::runtime_error("making test certificates failed: " + ReadFile(log));
    }
}

}  // namespace kelvane::testing
