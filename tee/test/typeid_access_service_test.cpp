#include "tee/typeid_access_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"

namespace qervo::tee {
namespace {

using csc_logging::LogCapture;
using csc_logging::LogLevel;
using ::testing::StrictMock;
using zelk::interfaces::typeidaccess::GetCertificateOutput;
using zelk::interfaces::typeidaccess::TypeIdAccessErrc;

ara::core::Future<GetCertificateOutput> Certificate(std::vector<std::uint8_t> bytes) {
    return ara::core::MakeReadyFuture([bytes] { return GetCertificateOutput{bytes}; });
}

class TypeidAccessServiceTest : public ::testing::Test {
protected:
    TypeidAccessServiceTest() { sut_.Initialize(); }

    std::shared_ptr<StrictMock<MockTypeIdAccessProxy>> proxy_ =
        std::make_shared<StrictMock<MockTypeIdAccessProxy>>();
    FakeDiscovery<TypeidAccessService::Proxy> discovery_{proxy_};
    TypeidAccessService sut_{discovery_.Binding()};
};

TEST_F(TypeidAccessServiceTest, WithoutTheServiceItLogsAndReturns101) {
    LogCapture log;
    std::string certificate = "kept";

    EXPECT_EQ(sut_.zelk_get_certificate("BASE", certificate), 101);

    EXPECT_EQ(certificate, "kept");
    EXPECT_TRUE(log.Contains(LogLevel::kError,
                             "zelk_get_certificate() Error! typeidaccess service is not ready"));
}

TEST_F(TypeidAccessServiceTest, TypeIdTextsMapToTheirNumbersExactly) {
    discovery_.Appear();
    LogCapture log;
    EXPECT_CALL(*proxy_, CallGetCertificate(11)).WillOnce([](auto) { return Certificate({0xb}); });
    EXPECT_CALL(*proxy_, CallGetCertificate(13)).WillOnce([](auto) { return Certificate({0xd}); });
    std::string certificate;

    EXPECT_EQ(sut_.zelk_get_certificate("BASE", certificate), 100);
    EXPECT_EQ(certificate, "\x0b");
    EXPECT_EQ(sut_.zelk_get_certificate("ZELK", certificate), 100);
    EXPECT_EQ(certificate, "\x0d");
    for (const char* unknown : {"base", "", "BASE ", "ROOT", "zelk"}) {
        EXPECT_EQ(sut_.zelk_get_certificate(unknown, certificate), 102) << unknown;
    }
    EXPECT_EQ(certificate, "\x0d");
    EXPECT_TRUE(log.Texts().empty());
}

TEST_F(TypeidAccessServiceTest, CertificateBytesArriveUnchangedEvenWhenEmpty) {
    discovery_.Appear();
    const std::vector<std::uint8_t> der{0x30, 0x82, 0x00, 0x0a, 0xff, 0x00, 0x0d};
    EXPECT_CALL(*proxy_, CallGetCertificate(11))
        .WillOnce([&](auto) { return Certificate(der); })
        .WillOnce([](auto) { return Certificate({}); });
    std::string certificate = "previous";

    EXPECT_EQ(sut_.zelk_get_certificate("BASE", certificate), 100);
    EXPECT_EQ(certificate, std::string(der.begin(), der.end()));
    EXPECT_EQ(sut_.zelk_get_certificate("BASE", certificate), 100);
    EXPECT_EQ(certificate, "");
}

TEST_F(TypeidAccessServiceTest, ApplicationErrorIsReturnedAsItsCodeAndLeavesTheCertificate) {
    discovery_.Appear();
    LogCapture log;
    EXPECT_CALL(*proxy_, CallGetCertificate(13)).WillOnce([](auto) {
        return ara::core::MakeReadyFuture([]() -> GetCertificateOutput {
            throw zelk::interfaces::typeidaccess::MakeApplicationError(
                TypeIdAccessErrc::ZELK_ERROR_INVALID_TYPEID);
        });
    });
    std::string certificate = "kept";

    EXPECT_EQ(sut_.zelk_get_certificate("ZELK", certificate), 20);

    EXPECT_EQ(certificate, "kept");
    EXPECT_TRUE(log.Contains(
        "zelk_get_certificate() Exception=TypeIdAccess::ZELK_ERROR_INVALID_TYPEID::20"));
}

TEST_F(TypeidAccessServiceTest, ReadinessFollowsTheService) {
    LogCapture log;

    discovery_.Appear();
    const bool readyAfterAppear = sut_.IsReady();
    discovery_.Disappear();

    EXPECT_TRUE(readyAfterAppear);
    EXPECT_FALSE(sut_.IsReady());
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"TypeidAccessService service found",
                                                     "TypeidAccessService service stopped"}));
}

}  // namespace
}  // namespace qervo::tee
