#ifndef APP_X509_VALIDATOR_HPP
#define APP_X509_VALIDATOR_HPP

#include <chrono>
#include <string>

namespace kelvane_client::x509_validator {

/// True when the certificate (DER, or PEM text; the string is a byte container)
/// stays valid for more than one year (365 days) from `now`. False when it
/// expires within that year and when it cannot be parsed at all, so that a
/// broken certificate is renewed just like an expiring one. Never throws.
bool IsCertificateValid(const std::string& certificate, std::chrono::system_clock::time_point now);

/// Logs the certificate library's version, with a warning when the library
/// loaded at run time is not the one the program was compiled against.
void VersionCheck();

}  // namespace kelvane_client::x509_validator

#endif  // APP_X509_VALIDATOR_HPP
