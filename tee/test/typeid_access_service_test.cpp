#include "tee/typeid_access_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"

// What the client's facade cannot reach; the calls themselves are tested through it.
namespace qervo::tee {
namespace {

TEST(TypeidAccessServiceTest, ReadinessFollowsTheSearchThatEndsWithTheAccessor) {
    ExpectReadinessFollowsTheSearch<TypeidAccessService, MockTypeIdAccessProxy>(
        "TypeidAccessService::Initialize()", "TypeidAccessService");
}

TEST(TypeidAccessServiceTest, WithoutTheServiceItLogsAndReturns101) {
    std::vector<std::string> journal;
    FakeDiscovery<TypeidAccessService::Proxy> discovery(nullptr, journal, "typeid");
    TypeidAccessService sut(discovery.Binding());
    csc_logging::LogCapture log;
    std::string certificate = "kept";

    EXPECT_EQ(sut.zelk_get_certificate("BASE", certificate), 101);

    EXPECT_EQ(certificate, "kept");
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kError,
                        "zelk_get_certificate() Error! typeidaccess service is not ready"),
              1u);
}

}  // namespace
}  // namespace qervo::tee
