#include "app/x509_validator.hpp"

#include <botan/asn1_obj.h>
#include <botan/build.h>
#include <botan/version.h>
#include <botan/x509cert.h>

#include <cstdint>
#include <cstdio>
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
std::string CTimeText(std::time_t seconds) {
    char buffer[64] = {};
    if (::ctime_r(&seconds, buffer) == nullptr) {
        return "?\n";
    }
    return buffer;
}

std::string CTimeText(std::chrono::system_clock::time_point time) {
    return CTimeText(std::chrono::system_clock::to_time_t(time));
}

// Botan's conversion to a time point wraps past the system clock's range
// (April 2262) and throws a little later; the calendar fields it keeps are
// read directly instead. Only the log line needs the time in seconds.
std::string CTimeText(const Botan::X509_Time& time) {
    int year = 0;
    int month = 0;
    std::tm fields{};
    if (std::sscanf(time.readable_string().c_str(), "%d/%d/%d %d:%d:%d", &year, &month,
                    &fields.tm_mday, &fields.tm_hour, &fields.tm_min, &fields.tm_sec) != 6) {
        return "?\n";
    }
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    return CTimeText(::timegm(&fields));
}

}  // namespace

bool IsCertificateValid(const std::string& certificate, std::chrono::system_clock::time_point now) {
    try {
        const std::vector<std::uint8_t> bytes(certificate.begin(), certificate.end());
        const Botan::X509_Certificate parsed(bytes);
        const Botan::X509_Time limit(now + kOneYear);

        CSCLogging::Info("Current system time is " + CTimeText(now));
        const Botan::X509_Time& notAfter = parsed.not_after();
        CSCLogging::Info("The Base Certificate expires at " + CTimeText(notAfter));

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
