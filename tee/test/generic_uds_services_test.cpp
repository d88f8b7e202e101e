#include "tee/generic_uds_services.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"
#include "test_support/scoped_environment.hpp"

// The part number; the identity file is tested through the client's facade.
namespace qervo::tee {
namespace {

using ac::dm::genericuds::HandleMessageOutput;
using Bytes = std::vector<std::uint8_t>;

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
