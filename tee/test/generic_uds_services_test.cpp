#include "tee/generic_uds_services.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"
#include "test_support/scoped_environment.hpp"

// What the client's facade cannot reach; the identity file is tested through it.
namespace qervo::tee {
namespace {

using ac::dm::genericuds::HandleMessageOutput;
using csc_logging::LogCapture;
using Bytes = std::vector<std::uint8_t>;

TEST(GenericUdsServicesTest, ReadinessFollowsTheSearchThatEndsWithTheAccessor) {
    ExpectReadinessFollowsTheSearch<GenericUdsServices, MockGenericUDSServiceProxy>(
        "GenericUdsServices::Initialize()", "GenericUdsService", std::string(TESMO_ID_PATH));
}

TEST(GenericUdsServicesTest, PartNumberIsReadByIdentifierF187WithoutItsPadding) {
    auto proxy = std::make_shared<::testing::StrictMock<MockGenericUDSServiceProxy>>();
    std::vector<std::string> journal;
    FakeDiscovery<GenericUdsServices::Proxy> discovery(proxy, journal, "uds");
    GenericUdsServices sut(TESMO_ID_PATH, discovery.Binding());
    sut.Initialize();
    LogCapture log;
    std::string text;
    EXPECT_EQ(sut.ecu_get_part_number(text), 101);
    discovery.Appear();
    const struct {
        Bytes response;
        std::string partNumber;
    } rows[] = {
        {{0xF1, 0x87, 'V', '0', '4', '0', '0', '7', ' ', 0x00}, "V04007"},
        {{'V', '0', '4', ' ', '7'}, "V04 7"},
        {{0xF1, 0x87, ' ', 0x00, ' '}, ""},
        {{0xF1}, "\xF1"},
    };
    for (const auto& row : rows) {
        EXPECT_CALL(*proxy, CallHandleMessage(0x22, ::testing::ElementsAre(0xF1, 0x87)))
            .WillOnce(Answers(HandleMessageOutput{row.response}));

        EXPECT_EQ(sut.ecu_get_part_number(text), 100);
        EXPECT_EQ(text, row.partNumber);
    }
    EXPECT_CALL(*proxy, CallHandleMessage)
        .WillOnce(Raises<HandleMessageOutput>(ac::dm::genericuds::MakeApplicationError(
            ac::dm::genericuds::GenericUDSServiceErrc::UDSServiceFailed)));
    EXPECT_EQ(sut.ecu_get_part_number(text), 2);
    EXPECT_EQ(text, "\xF1");
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kError,
                        "ecu_get_part_number_from_dm() Error! genericuds service is not ready"),
              1u);
    EXPECT_TRUE(log.Contains("ecu_get_part_number_from_dm(2) part number: V04007"));
    EXPECT_TRUE(log.Contains(
        "ecu_get_part_number_from_dm() Exception=GenericUDSService::UDSServiceFailed::2"));
}

TEST(TesmoIdPathTest, DevelopmentHostsMayPointElsewhere) {
    const struct {
        std::optional<std::string> variable;
        std::string path;
    } rows[] = {
        {std::nullopt, TESMO_ID_PATH}, {"/tmp/tesmo.bin", "/tmp/tesmo.bin"}, {"", TESMO_ID_PATH}};
    for (const auto& row : rows) {
        kelvane::testing::ScopedEnvironment environment("KELVANE_TESMO_ID_PATH", row.variable);

        EXPECT_EQ(TesmoIdPath(), row.path);
    }
}

}  // namespace
}  // namespace qervo::tee
