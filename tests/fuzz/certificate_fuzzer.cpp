// Base certificates (DER or PEM) as the key-management service might return
// them, checked by x509_validator::IsCertificateValid. Nothing may escape it,
// and a certificate that cannot be read never counts as valid.

#include <botan/exceptn.h>
#include <botan/x509cert.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/x509_validator.hpp"
#include "fuzz_check.hpp"
#include "fuzz_logging.hpp"

namespace {

using fuzz::Require;
using std::chrono::system_clock;

bool Readable(const std::uint8_t* data, std::size_t size) {
    try {
        const Botan::X509_Certificate certificate(std::vector<std::uint8_t>(data, data + size));
        return true;
    } catch (const Botan::Exception&) {
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string certificate(reinterpret_cast<const char*>(data), size);
    // 2026-11-22, and 2049-06-30, whose year ahead crosses into 2050, where
    // certificates switch from UTCTime to GeneralizedTime.
    const system_clock::time_point nows[] = {
        system_clock::from_time_t(1'795'305'600),
        system_clock::from_time_t(2'508'624'000),
    };
    bool valid = false;
    for (const auto now : nows) {
        valid = kelvane_client::x509_validator::IsCertificateValid(certificate, now) || valid;
    }
    if (valid) {
        Require(Readable(data, size), "only a readable certificate is valid");
    }
    return 0;
}
