#include "app/x509_validator.hpp"

#include <botan/asn1_obj.h>
#include <botan/build.h>
#include <botan/version.h>
#include <botan/x509cert.h>

#include <cstdint>
#include <ctime>
#include <vector>

#include "csc_logging/csc_logging.hpp"

namespace kelvane_client::x509_validator {
namespace {

using csc_logging::CSCLogEntry;
using csc_logging::CSCLogging;

// No leap-day adjustment: a year is exactly 365 days here.
constexpr std::chrono::seconds kOneYear{31'536'000};

// The C library's text (local time, ends with a line feed).
std::string CTimeText(std::chrono::system_clock::time_point time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    char buffer[64] = {};
    if (::ctime_r(&seconds, buffer) == nullptr) {
        return "?\n";
    }
    return buffer;
}

// Botan converts later times to a system-clock time point without failing: the
// nanosecond count wraps around (year 2262).
const Botan::X509_Time& LatestTimePoint() {
    static const Botan::X509_Time latest(std::chrono::system_clock::time_point::max());
    return latest;
}

}  // namespace

bool IsCertificateValid(const std::string& certificate, std::chrono::system_clock::time_point now) {
    try {
        const std::vector<std::uint8_t> bytes(certificate.begin(), certificate.end());
        const Botan::X509_Certificate parsed(bytes);
        const Botan::X509_Time limit(now + kOneYear);

        CSCLogging::Info("Current system time is " + CTimeText(now));
        const Botan::X509_Time& notAfter = parsed.not_after();
        if (notAfter.cmp(LatestTimePoint()) > 0) {
            // Not convertible to a time point: as unreadable as a broken certificate.
            return false;
        }
        CSCLogging::Info("The Base Certificate expires at " +
                         CTimeText(notAfter.to_std_timepoint()));

        if (limit.cmp(notAfter) > 0) {
            CSCLogging::Info(
                "The Base Certificate expires in less than one year. Starting the DLC Update");
            return false;
        }
        CSCLogging::Info("Certificate is valid for more than one year, no DLC Update needed");
        return true;
    } catch (...) {
        // A certificate that cannot be read is as good as an expired one.
        return false;
    }
}

void VersionCheck() {
    const std::string mismatch =
        Botan::runtime_version_check(BOTAN_VERSION_MAJOR, BOTAN_VERSION_MINOR, BOTAN_VERSION_PATCH);
    if (mismatch.empty()) {
        CSCLogging::Info(CSCLogEntry() << "Botan Version " << BOTAN_VERSION_MAJOR << "."
                                       << BOTAN_VERSION_MINOR << "." << BOTAN_VERSION_PATCH);
    } else {
        CSCLogging::Warning("Botan runtime version: " + mismatch);
    }
}

}  // namespace kelvane_client::x509_validator
