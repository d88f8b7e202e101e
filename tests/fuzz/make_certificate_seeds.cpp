// Writes self-signed ECDSA certificates made by Botan for the certificate
// fuzzer's seed corpus: make_certificate_seeds <directory>. Run by
// make_corpus.sh; the output is committed, this program is not built.

#include <botan/auto_rng.h>
#include <botan/ec_group.h>
#include <botan/ecdsa.h>
#include <botan/x509self.h>

#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

void Write(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

Botan::X509_Certificate Make(Botan::RandomNumberGenerator& rng, const std::string& notBefore,
                             const std::string& notAfter) {
    const Botan::ECDSA_PrivateKey key(rng, Botan::EC_Group("secp256r1"));
    Botan::X509_Cert_Options options("ZELK Base/DE/Kelvane/ECU");
    options.not_before(notBefore);
    options.not_after(notAfter);
    return Botan::X509::create_self_signed_cert(options, key, "SHA-256", rng);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: make_certificate_seeds <directory>\n";
        return 2;
    }
    const std::string directory = argv[1];
    Botan::AutoSeeded_RNG rng;

    // Valid for years (UTCTime), expiring within the year, and beyond 2049
    // (GeneralizedTime).
    const auto valid = Make(rng, "250101000000Z", "301231235959Z");
    const std::vector<std::uint8_t> der = valid.BER_encode();
    Write(directory + "/base_valid.der", std::string(der.begin(), der.end()));
    Write(directory + "/base_expiring.pem",
          Make(rng, "250101000000Z", "270601000000Z").PEM_encode());
    const std::vector<std::uint8_t> late =
        Make(rng, "250101000000Z", "20510101000000Z").BER_encode();
    Write(directory + "/base_2051.der", std::string(late.begin(), late.end()));
    return 0;
}
