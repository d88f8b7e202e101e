#include "app/x509_validator.hpp"

#include <botan/auto_rng.h>
#include <botan/ec_group.h>
#include <botan/ecdsa.h>
#include <botan/x509self.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include "csc_logging/log_capture.hpp"

namespace kelvane_client::x509_validator {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogCapture;
using Clock = std::chrono::system_clock;

// 2026-11-22T10:15:02Z, whole seconds as certificates carry them.
const Clock::time_point kNow{std::chrono::seconds{1795342502}};

// A self-signed certificate made by the test itself, valid until `notAfter`.
std::string MakeCertificate(const Botan::X509_Time& notAfter, bool pem = false) {
    static Botan::AutoSeeded_RNG rng;
    static const Botan::ECDSA_PrivateKey key(rng, Botan::EC_Group("secp256r1"));
    Botan::X509_Cert_Options options("Base certificate/DE/Kelvane/Test");
    options.start = Botan::X509_Time(kNow - 400 * 24h);
    options.end = notAfter;
    const auto certificate = Botan::X509::create_self_signed_cert(options, key, "SHA-256", rng);
    const auto der = certificate.BER_encode();
    return pem ? certificate.PEM_encode() : std::string(der.begin(), der.end());
}

std::string CTime(std::time_t seconds) {
    char text[64] = {};
    return ::ctime_r(&seconds, text);
}

TEST(X509ValidatorTest, UpdateIsNeededExactlyWhenLessThan365DaysAreLeft) {
    // Name, life left, PEM rather than DER, no update needed.
    const std::tuple<const char*, Clock::duration, bool, bool> rows[] = {
        {"expired", -24h, false, false},
        {"364 days", 364 * 24h, true, false},
        {"one second short of a year", 31'535'999s, false, false},
        {"exactly 31536000 seconds", 31'536'000s, true, true},
        {"366 days", 366 * 24h, false, true}};
    for (const auto& [name, lifeLeft, pem, valid] : rows) {
        SCOPED_TRACE(name);
        const std::string certificate = MakeCertificate(Botan::X509_Time(kNow + lifeLeft), pem);
        LogCapture log;

        EXPECT_EQ(IsCertificateValid(certificate, kNow), valid);

        EXPECT_EQ(log.Texts(),
                  (std::vector<std::string>{
                      "Current system time is " + CTime(Clock::to_time_t(kNow)),
                      "The Base Certificate expires at " + CTime(Clock::to_time_t(kNow + lifeLeft)),
                      valid ? "Certificate is valid for more than one year, no DLC Update needed"
                            : "The Base Certificate expires in less than one year. Starting the "
                              "DLC Update"}));
    }
}

TEST(X509ValidatorTest, ExpiryBeyondTheSystemClocksRangeIsShownInCTimeFormat) {
    // A nanosecond system-clock time point ends in April 2262.
    for (const auto& [notAfter, seconds] : {std::pair{"22620412000000Z", 9'223'372'800L},
                                            std::pair{"30000101000000Z", 32'503'680'000L}}) {
        LogCapture log;

        EXPECT_TRUE(IsCertificateValid(
            MakeCertificate(Botan::X509_Time(notAfter, Botan::GENERALIZED_TIME)), kNow));

        EXPECT_TRUE(log.Contains("The Base Certificate expires at " + CTime(seconds)))
            << log.Dump();
    }
}

TEST(X509ValidatorTest, UnreadableCertificatesNeedAnUpdateAndLogNothing) {
    const std::string der = MakeCertificate(Botan::X509_Time(kNow + 800 * 24h));
    for (const std::string& broken :
         {std::string(), std::string("garbage, not a certificate"), der.substr(0, der.size() / 2),
          std::string("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n")}) {
        LogCapture log;

        EXPECT_FALSE(IsCertificateValid(broken, kNow)) << "input of " << broken.size() << " bytes";

        EXPECT_TRUE(log.Texts().empty()) << log.Dump();
    }
}

}  // namespace
}  // namespace kelvane_client::x509_validator
