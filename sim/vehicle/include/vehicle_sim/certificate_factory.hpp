#ifndef VEHICLE_SIM_CERTIFICATE_FACTORY_HPP
#define VEHICLE_SIM_CERTIFICATE_FACTORY_HPP

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace vehicle_sim {

/// A private key (PKCS#8, DER) and its certificate (X.509, DER).
struct KeyAndCertificate {
    std::vector<std::uint8_t> privateKey;
    std::vector<std::uint8_t> certificate;
};

/// Makes the vehicle's certificates with Botan: a self-signed root and Base
/// certificates it signs, all ECDSA P-256 with SHA-256.
class CertificateFactory {
public:
    using TimePoint = std::chrono::system_clock::time_point;

    /// A root CA valid from `now` - 1 day to `now` + 20 years.
    static KeyAndCertificate MakeRoot(const std::string& vin, TimePoint now);

    /// A new key and a Base certificate for it, valid until `notAfter`.
    static KeyAndCertificate MakeBase(const KeyAndCertificate& root, const std::string& vin,
                                      TimePoint now, TimePoint notAfter);

    /// A Base certificate for the existing key `baseKey`, valid until `notAfter`.
    static std::vector<std::uint8_t> IssueBase(const KeyAndCertificate& root,
                                               const std::vector<std::uint8_t>& baseKey,
                                               const std::string& vin, TimePoint now,
                                               TimePoint notAfter);

    /// The certificate's end of validity; throws on bytes that are no certificate.
    static TimePoint NotAfter(const std::vector<std::uint8_t>& certificate);

    /// PEM text of a DER certificate.
    static std::string ToPem(const std::vector<std::uint8_t>& certificate);
};

}  // namespace vehicle_sim

#endif  // VEHICLE_SIM_CERTIFICATE_FACTORY_HPP
