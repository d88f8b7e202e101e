#include "app/x509_validator.hpp"

#include <botan/auto_rng.h>
#include <botan/ec_group.h>
#include <botan/ecdsa.h>
#include <botan/x509self.h>
#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

#include "csc_logging/log_capture.hpp"

namespace kelvane_client::x509_validator {
namespace {

using namespace std::chrono_literals;
using csc_logging::LogCapture;
using csc_logging::LogLevel;
using Clock = std::chrono::system_clock;
using Days = std::chrono::duration<long, std::ratio<86400>>;

// 2026-11-22T10:15:02Z, whole seconds as certificates carry them.
const Clock::time_point kNow{std::chrono::seconds{1795342502}};

constexpr const char* kLessThanOneYear =
    "The Base Certificate expires in less than one year. Starting the DLC Update";
constexpr const char* kValidForMoreThanOneYear =
    "Certificate is valid for more than one year, no DLC Update needed";

enum class Encoding { kDer, kPem };

// A self-signed certificate made by the test itself, valid until `notAfter`.
std::string MakeCertificate(const Botan::X509_Time& notAfter, Encoding encoding) {
    static Botan::AutoSeeded_RNG rng;
    static const Botan::ECDSA_PrivateKey key(rng, Botan::EC_Group("secp256r1"));
    Botan::X509_Cert_Options options("Base certificate/DE/Kelvane/Test");
    options.start = Botan::X509_Time(kNow - Days{400});
    options.end = notAfter;
    const auto certificate = Botan::X509::create_self_signed_cert(options, key, "SHA-256", rng);
    if (encoding == Encoding::kPem) {
        return certificate.PEM_encode();
    }
    const auto der = certificate.BER_encode();
    return std::string(der.begin(), der.end());
}

std::string MakeCertificate(Clock::time_point notAfter, Encoding encoding) {
    return MakeCertificate(Botan::X509_Time(notAfter), encoding);
}

TEST(X509ValidatorTest, UpdateIsNeededExactlyWhenLessThan365DaysAreLeft) {
    const std::tuple<const char*, Clock::duration, bool> cases[] = {
        {"expired", -Days{1}, false},
        {"364 days", Days{364}, false},
        {"one second short of a year", 31'535'999s, false},
        {"exactly 31536000 seconds", 31'536'000s, true},
        {"366 days", Days{366}, true}};
    for (const auto& [name, lifeLeft, expected] : cases) {
        for (const Encoding encoding : {Encoding::kDer, Encoding::kPem}) {
            SCOPED_TRACE(std::string(name) + (encoding == Encoding::kDer ? " DER" : " PEM"));
            const std::string certificate = MakeCertificate(kNow + lifeLeft, encoding);
            LogCapture log;

            EXPECT_EQ(IsCertificateValid(certificate, kNow), expected);

            EXPECT_EQ(log.Count(LogLevel::kInfo, kLessThanOneYear), expected ? 0U : 1U);
            EXPECT_EQ(log.Count(LogLevel::kInfo, kValidForMoreThanOneYear), expected ? 1U : 0U);
            EXPECT_LT(log.IndexOf("Current system time is "),
                      log.IndexOf("The Base Certificate expires at "));
        }
    }
}

TEST(X509ValidatorTest, UnreadableCertificatesNeedAnUpdateAndLogNothing) {
    const std::string der = MakeCertificate(kNow + Days{800}, Encoding::kDer);
    for (const std::string& broken :
         {std::string(), std::string("garbage, not a certificate"), der.substr(0, der.size() / 2),
          std::string("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n")}) {
        LogCapture log;

        EXPECT_FALSE(IsCertificateValid(broken, kNow)) << "input of " << broken.size() << " bytes";

        EXPECT_TRUE(log.Texts().empty()) << log.Dump();
    }
}

TEST(X509ValidatorTest, TimeLinesShowNowAndAnExpiryBeyondTheSystemClocksRangeInCTimeFormat) {
    const std::time_t nowSeconds = Clock::to_time_t(kNow);
    char nowText[64] = {};
    ::ctime_r(&nowSeconds, nowText);
    // A nanosecond system-clock time point ends in April 2262.
    const std::pair<const char*, std::time_t> cases[] = {{"22620412000000Z", 9'223'372'800},
                                                         {"23000101000000Z", 10'413'792'000},
                                                         {"30000101000000Z", 32'503'680'000}};
    for (const auto& [notAfter, seconds] : cases) {
        const std::string certificate =
            MakeCertificate(Botan::X509_Time(notAfter, Botan::GENERALIZED_TIME), Encoding::kDer);
        char expiryText[64] = {};
        ::ctime_r(&seconds, expiryText);
        LogCapture log;

        EXPECT_TRUE(IsCertificateValid(certificate, kNow)) << notAfter;

        EXPECT_TRUE(log.Contains(std::string("Current system time is ") + nowText)) << log.Dump();
        EXPECT_TRUE(log.Contains(std::string("The Base Certificate expires at ") + expiryText))
            << log.Dump();
        EXPECT_EQ(log.Count(kValidForMoreThanOneYear), 1U);
    }
}

}  // namespace
}  // namespace kelvane_client::x509_validator
