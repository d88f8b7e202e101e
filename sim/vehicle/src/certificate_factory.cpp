#include "vehicle_sim/certificate_factory.hpp"

#include <botan/auto_rng.h>
#include <botan/data_src.h>
#include <botan/ecdsa.h>
#include <botan/pkcs10.h>
#include <botan/pkcs8.h>
#include <botan/x509_ca.h>
#include <botan/x509self.h>

#include <algorithm>
#include <memory>

namespace vehicle_sim {
namespace {

constexpr auto kDay = std::chrono::hours(24);
constexpr const char* kHash = "SHA-256";

std::unique_ptr<Botan::Private_Key> LoadKey(const std::vector<std::uint8_t>& der) {
    Botan::DataSource_Memory source(der);
    return Botan::PKCS8::load_key(source);
}

std::vector<std::uint8_t> Encode(const Botan::Private_Key& key) {
    const auto der = Botan::PKCS8::BER_encode(key);
    return std::vector<std::uint8_t>(der.begin(), der.end());
}

}  // namespace

KeyAndCertificate CertificateFactory::MakeRoot(const std::string& vin, TimePoint now) {
    Botan::AutoSeeded_RNG rng;
    const Botan::ECDSA_PrivateKey key(rng, Botan::EC_Group("secp256r1"));
    Botan::X509_Cert_Options options("Kelvane Simulator Root " + vin + "/DE/Kelvane Simulator");
    options.CA_key();
    options.start = Botan::X509_Time(now - kDay);
    options.end = Botan::X509_Time(now + 20 * 365 * kDay);
    const auto certificate = Botan::X509::create_self_signed_cert(options, key, kHash, rng);
    return {Encode(key), certificate.BER_encode()};
}

KeyAndCertificate CertificateFactory::MakeBase(const KeyAndCertificate& root,
                                               const std::string& vin, TimePoint now,
                                               TimePoint notAfter) {
    Botan::AutoSeeded_RNG rng;
    const Botan::ECDSA_PrivateKey key(rng, Botan::EC_Group("secp256r1"));
    const auto encoded = Encode(key);
    return {encoded, IssueBase(root, encoded, vin, now, notAfter)};
}

std::vector<std::uint8_t> CertificateFactory::IssueBase(const KeyAndCertificate& root,
                                                        const std::vector<std::uint8_t>& baseKey,
                                                        const std::string& vin, TimePoint now,
                                                        TimePoint notAfter) {
    Botan::AutoSeeded_RNG rng;
    const auto rootKey = LoadKey(root.privateKey);
    const Botan::X509_Certificate rootCertificate(root.certificate);
    const auto key = LoadKey(baseKey);
    const Botan::X509_Cert_Options options(vin + "/DE/Kelvane Simulator/Base");
    const auto request = Botan::X509::create_cert_req(options, *key, kHash, rng);
    const Botan::X509_CA authority(rootCertificate, *rootKey, kHash, rng);
    // An already expired certificate must still have a valid range.
    const auto notBefore = std::min(now, notAfter) - kDay;
    return authority
        .sign_request(request, rng, Botan::X509_Time(notBefore), Botan::X509_Time(notAfter))
        .BER_encode();
}

CertificateFactory::TimePoint CertificateFactory::NotAfter(
    const std::vector<std::uint8_t>& certificate) {
    return Botan::X509_Certificate(certificate).not_after().to_std_timepoint();
}

std::string CertificateFactory::ToPem(const std::vector<std::uint8_t>& certificate) {
    return Botan::X509_Certificate(certificate).PEM_encode();
}

}  // namespace vehicle_sim
