#include "tee/diagnostic_services.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"

// What the client's facade cannot reach; the calls themselves are tested through it.
namespace qervo::tee {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(DiagnosticServicesTest, ReadinessFollowsTheSearchThatEndsWithTheAccessor) {
    ExpectReadinessFollowsTheSearch<DiagnosticServices, MockDiagServicesProxy>(
        "DiagnosticServices::Initialize()", "DiagnosticServices");
}

TEST(DiagnosticServicesTest, WithoutTheServiceEveryCallReturns101SilentlyAndTouchesNothing) {
    std::vector<std::string> journal;
    FakeDiscovery<DiagnosticServices::Proxy> discovery(nullptr, journal, "diag");
    DiagnosticServices sut(discovery.Binding());
    csc_logging::LogCapture log;
    Bytes output{9};
    std::uint16_t counter = 7;

    EXPECT_EQ(sut.zelk_handle_dlc(Bytes{1}), 101);
    EXPECT_EQ(sut.zelk_get_identity_hash(output, Bytes(16)), 101);
    EXPECT_EQ(sut.zelk_get_pss_hash(output), 101);
    EXPECT_EQ(sut.zelk_get_training_counter(counter), 101);
    EXPECT_EQ(sut.zelk_get_zelk_vin(output), 101);

    EXPECT_EQ(output, Bytes{9});
    EXPECT_EQ(counter, 7);
    EXPECT_TRUE(log.Texts().empty());
}

}  // namespace
}  // namespace qervo::tee
