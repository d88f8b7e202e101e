#include "tee/typeid_access_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"

namespace qervo::tee {
namespace {

using csc_logging::LogCapture;
using ::testing::StrictMock;
using zelk::interfaces::typeidaccess::GetCertificateOutput;
using zelk::interfaces::typeidaccess::TypeIdAccessErrc;

TEST(TypeidAccessServiceLifetimeTest, ReadinessFollowsTheSearchThatEndsWithTheAccessor) {
    ExpectReadinessFollowsTheSearch<TypeidAccessService, MockTypeIdAccessProxy>(
        "TypeidAccessService::Initialize()", "TypeidAccessService");
}

TEST(TypeidAccessServiceTest, TypeIdTextSelectsTheCertificateWhoseBytesArriveUnchanged) {
    auto proxy = std::make_shared<StrictMock<MockTypeIdAccessProxy>>();
    FakeDiscovery<TypeidAccessService::Proxy> discovery(proxy);
    TypeidAccessService sut(discovery.Binding());
    sut.Initialize();
    LogCapture log;
    const std::vector<std::uint8_t> der{0x30, 0x82, 0x00, 0x0a, 0xff, 0x00, 0x0d};
    EXPECT_CALL(*proxy, CallGetCertificate(11))
        .WillOnce(Answers(GetCertificateOutput{der}))
        .WillOnce(Answers(GetCertificateOutput{}));
    EXPECT_CALL(*proxy, CallGetCertificate(13))
        .WillOnce(Answers(GetCertificateOutput{{0x0d}}))
        .WillOnce(Raises<GetCertificateOutput>(zelk::interfaces::typeidaccess::MakeApplicationError(
            TypeIdAccessErrc::ZELK_ERROR_INVALID_TYPEID)));
    std::string certificate = "kept";

    EXPECT_EQ(sut.zelk_get_certificate("BASE", certificate), 101);
    EXPECT_EQ(certificate, "kept");
    discovery.Appear();
    EXPECT_EQ(sut.zelk_get_certificate("BASE", certificate), 100);
    EXPECT_EQ(certificate, std::string(der.begin(), der.end()));
    EXPECT_EQ(sut.zelk_get_certificate("ZELK", certificate), 100);
    EXPECT_EQ(certificate, "\x0d");
    for (const char* unknown : {"base", "", "BASE ", "ROOT", "zelk"}) {
        EXPECT_EQ(sut.zelk_get_certificate(unknown, certificate), 102) << unknown;
    }
    EXPECT_EQ(sut.zelk_get_certificate("ZELK", certificate), 20);
    EXPECT_EQ(certificate, "\x0d");
    EXPECT_EQ(sut.zelk_get_certificate("BASE", certificate), 100);
    EXPECT_EQ(certificate, "");
    EXPECT_EQ(log.Texts(),
              (std::vector<std::string>{
                  "zelk_get_certificate() Error! typeidaccess service is not ready",
                  "TypeidAccessService service found",
                  "zelk_get_certificate() Exception=TypeIdAccess::ZELK_ERROR_INVALID_TYPEID::20"}));
}

}  // namespace
}  // namespace qervo::tee
