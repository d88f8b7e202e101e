#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mock_proxies.hpp"
#include "tee/diagnostic_services.hpp"
#include "tee/generic_uds_services.hpp"
#include "tee/typeid_access_service.hpp"
#include "test_support/scoped_environment.hpp"

// What the client's facade cannot reach: the accessors' life cycle and calls while their
// service is absent, and the UDS part number, which the facade answers itself.
namespace qervo::tee {
namespace {

using ac::dm::genericuds::HandleMessageOutput;
using Bytes = std::vector<std::uint8_t>;

TEST(ServiceAccessorsTest, ReadinessFollowsTheSearchAndCallsWithoutTheServiceGive101) {
    Bytes output{9};
    std::uint16_t counter = 7;
    std::string text = "kept";

    ExpectReadinessFollowsTheSearch<DiagnosticServices>(
        {"DiagnosticServices::Initialize()", "DiagnosticServices service found",
         "DiagnosticServices service stopped", "DiagnosticServices::Initialize()"},
        [&](DiagnosticServices& sut) {
            EXPECT_EQ(sut.zelk_handle_dlc(Bytes{1}), 101);
            // The service is asked for before the challenge is checked.
            EXPECT_EQ(sut.zelk_get_identity_hash(output, Bytes(15)), 101);
            EXPECT_EQ(sut.zelk_get_pss_hash(output), 101);
            EXPECT_EQ(sut.zelk_get_training_counter(counter), 101);
            EXPECT_EQ(sut.zelk_get_zelk_vin(output), 101);
        });
    ExpectReadinessFollowsTheSearch<TypeidAccessService>(
        {"TypeidAccessService::Initialize()",
         "zelk_get_certificate() Error! typeidaccess service is not ready",
         "TypeidAccessService service found", "TypeidAccessService service stopped",
         "TypeidAccessService::Initialize()"},
        // An unknown type id too: the service is asked for first.
        [&](TypeidAccessService& sut) { EXPECT_EQ(sut.zelk_get_certificate("nope", text), 101); });
    ExpectReadinessFollowsTheSearch<GenericUdsServices>(
        {"GenericUdsServices::Initialize()", "GenericUdsService service found",
         "GenericUdsService service stopped", "GenericUdsServices::Initialize()"},
        [](GenericUdsServices&) {}, std::string(TESMO_ID_PATH));

    EXPECT_EQ(output, Bytes{9});
    EXPECT_EQ(counter, 7);
    EXPECT_EQ(text, "kept");
}

TEST(GenericUdsServicesTest, PartNumberIsReadByIdentifierF187WithoutItsPadding) {
    auto proxy = std::make_shared<::testing::StrictMock<MockGenericUDSServiceProxy>>();
    std::vector<std::string> journal;
    FakeDiscovery<GenericUdsServices::Proxy> discovery(proxy, journal, "uds");
    GenericUdsServices sut(TESMO_ID_PATH, discovery.Binding());
    sut.Initialize();
    discovery.Appear();
    csc_logging::LogCapture log;
    const std::pair<Bytes, std::string> rows[] = {
        {{0xF1, 0x87, 'V', '0', '4', '0', '0', '7', ' ', 0x00}, "V04007"},
        {{'V', '0', '4', ' ', '7'}, "V04 7"},
        {{0xF1, 0x87, ' ', 0x00, ' '}, ""},
        {{0xF1}, "\xF1"},
    };
    std::string text;
    for (const auto& [response, partNumber] : rows) {
        EXPECT_CALL(*proxy, CallHandleMessage(0x22, ::testing::ElementsAre(0xF1, 0x87)))
            .WillOnce(Answers(HandleMessageOutput{response}));

        EXPECT_EQ(sut.ecu_get_part_number(text), 100);
        EXPECT_EQ(text, partNumber);
    }
    EXPECT_CALL(*proxy, CallHandleMessage)
        .WillOnce(Raises<HandleMessageOutput>(ac::dm::genericuds::MakeApplicationError(
            ac::dm::genericuds::GenericUDSServiceErrc::UDSServiceFailed)));
    EXPECT_EQ(sut.ecu_get_part_number(text), 2);
    EXPECT_EQ(text, "\xF1");
    EXPECT_TRUE(log.Contains("ecu_get_part_number_from_dm(1) part number: V04007 "));
    EXPECT_TRUE(log.Contains("ecu_get_part_number_from_dm(2) part number: V04007"));
    EXPECT_TRUE(log.Contains(
        "ecu_get_part_number_from_dm() Exception=GenericUDSService::UDSServiceFailed::2"));
}

TEST(TesmoIdPathTest, DevelopmentHostsMayPointElsewhereButNotToNothing) {
    const std::pair<std::optional<std::string>, std::string> rows[] = {
        {std::nullopt, TESMO_ID_PATH}, {"", TESMO_ID_PATH}, {"/tmp/tesmo.bin", "/tmp/tesmo.bin"}};
    for (const auto& [value, path] : rows) {
        kelvane::testing::ScopedEnvironment environment("KELVANE_TESMO_ID_PATH", value);

        EXPECT_EQ(TesmoIdPath(), path);
    }
}

}  // namespace
}  // namespace qervo::tee
