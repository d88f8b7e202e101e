#include "tee/generic_uds_services.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"
#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"

namespace qervo::tee {
namespace {

using ac::dm::genericuds::HandleMessageOutput;
using csc_logging::LogCapture;
using csc_logging::LogLevel;
using ::testing::ElementsAre;
using ::testing::StrictMock;
using Bytes = std::vector<std::uint8_t>;

class GenericUdsServicesTest : public ::testing::Test {
protected:
    kelvane::testing::TemporaryDirectory directory_;
    std::shared_ptr<StrictMock<MockGenericUDSServiceProxy>> proxy_ =
        std::make_shared<StrictMock<MockGenericUDSServiceProxy>>();
    FakeDiscovery<GenericUdsServices::Proxy> discovery_{proxy_};
};

TEST(GenericUdsServicesLifetimeTest, ReadinessFollowsTheSearchThatEndsWithTheAccessor) {
    ExpectReadinessFollowsTheSearch<GenericUdsServices, MockGenericUDSServiceProxy>(
        "GenericUdsServices::Initialize()", "GenericUdsService", std::string(TESMO_ID_PATH));
}

TEST_F(GenericUdsServicesTest, IdentityFileIsReadWholeAndByteForByte) {
    for (const std::string& content :
         {std::string("TESMO-4711\n"), std::string("\x00\x01 \r\n\xff\x00", 7), std::string(),
          std::string(100000, 'x')}) {
        GenericUdsServices sut(directory_.Write("tesmo.bin", content), discovery_.Binding());
        std::string text = "old";

        EXPECT_EQ(sut.ecu_get_tesmo_id_string(text), 100);
        EXPECT_EQ(text, content) << content.size();
    }
}

TEST_F(GenericUdsServicesTest, UnreadableIdentityFileGives102WithOneErrorNamingIt) {
    for (const std::string& path : {std::string(TESMO_ID_PATH), directory_.Path()}) {
        LogCapture log;
        GenericUdsServices sut(path, discovery_.Binding());
        std::string text = "kept";

        EXPECT_EQ(sut.ecu_get_tesmo_id_string(text), 102);
        EXPECT_EQ(text, "kept");
        EXPECT_EQ(
            log.Count(LogLevel::kError, "ecu_get_tesmo_id_string() Error! can't open file " + path),
            1u);
    }
}

TEST_F(GenericUdsServicesTest,
       PartNumberIsReadByIdentifierF187WithoutPaddingAndDiagnosticIdIsFixed) {
    GenericUdsServices sut(TESMO_ID_PATH, discovery_.Binding());
    sut.Initialize();
    LogCapture log;
    std::string text;
    EXPECT_EQ(sut.ecu_get_diagnostic_id(text), 100);
    EXPECT_EQ(text, "C003");
    EXPECT_EQ(sut.ecu_get_part_number(text), 101);
    EXPECT_EQ(log.Count(LogLevel::kError,
                        "ecu_get_part_number_from_dm() Error! genericuds service is not ready"),
              1u);
    discovery_.Appear();
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
        EXPECT_CALL(*proxy_, CallHandleMessage(0x22, ElementsAre(0xF1, 0x87)))
            .WillOnce(Answers(HandleMessageOutput{row.response}));

        EXPECT_EQ(sut.ecu_get_part_number(text), 100);
        EXPECT_EQ(text, row.partNumber);
    }
    EXPECT_CALL(*proxy_, CallHandleMessage)
        .WillOnce(Raises<HandleMessageOutput>(ac::dm::genericuds::MakeApplicationError(
            ac::dm::genericuds::GenericUDSServiceErrc::UDSServiceFailed)));
    EXPECT_EQ(sut.ecu_get_part_number(text), 2);
    EXPECT_EQ(text, "\xF1");
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
