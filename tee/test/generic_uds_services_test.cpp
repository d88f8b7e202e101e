#include "tee/generic_uds_services.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "csc_logging/log_capture.hpp"
#include "mock_proxies.hpp"
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

TEST_F(GenericUdsServicesTest, IdentityFileIsReadWholeAndByteForByte) {
    const std::string withLineFeed = "TESMO-4711\n";
    const std::string binary("\x00\x01 \r\n\xff\x00", 7);
    const std::string large(100000, 'x');
    GenericUdsServices sut(directory_.Write("a.bin", withLineFeed), discovery_.Binding());
    GenericUdsServices sutBinary(directory_.Write("b.bin", binary), discovery_.Binding());
    GenericUdsServices sutEmpty(directory_.Write("c.bin", ""), discovery_.Binding());
    GenericUdsServices sutLarge(directory_.Write("d.bin", large), discovery_.Binding());
    std::string text = "old";

    EXPECT_EQ(sut.ecu_get_tesmo_id_string(text), 100);
    EXPECT_EQ(text, withLineFeed);
    EXPECT_EQ(sutBinary.ecu_get_tesmo_id_string(text), 100);
    EXPECT_EQ(text, binary);
    EXPECT_EQ(sutLarge.ecu_get_tesmo_id_string(text), 100);
    EXPECT_EQ(text, large);
    EXPECT_EQ(sutEmpty.ecu_get_tesmo_id_string(text), 100);
    EXPECT_EQ(text, "");
}

TEST_F(GenericUdsServicesTest, MissingIdentityFileGives102WithOneErrorNamingIt) {
    LogCapture log;
    GenericUdsServices sut(TESMO_ID_PATH, discovery_.Binding());
    GenericUdsServices sutDirectory(directory_.Path(), discovery_.Binding());
    std::string text = "kept";

    EXPECT_EQ(sut.ecu_get_tesmo_id_string(text), 102);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(log.Count(LogLevel::kError,
                        "ecu_get_tesmo_id_string() Error! can't open file "
                        "/data/target/yelt_ids/tesmo_string.bin"),
              1u);
    EXPECT_EQ(sutDirectory.ecu_get_tesmo_id_string(text), 102);
    EXPECT_EQ(text, "kept");
}

TEST_F(GenericUdsServicesTest, DiagnosticIdIsFixedWhetherOrNotTheServiceIsThere) {
    GenericUdsServices sut(TESMO_ID_PATH, discovery_.Binding());
    sut.Initialize();
    std::string id;

    EXPECT_EQ(sut.ecu_get_diagnostic_id(id), 100);
    EXPECT_EQ(id, "C003");
    discovery_.Appear();
    id.clear();
    EXPECT_EQ(sut.ecu_get_diagnostic_id(id), 100);
    EXPECT_EQ(id, "C003");
}

TEST_F(GenericUdsServicesTest, PartNumberIsReadByIdentifierF187AndItsPaddingDropped) {
    GenericUdsServices sut(TESMO_ID_PATH, discovery_.Binding());
    sut.Initialize();
    LogCapture log;
    std::string partNumber = "kept";
    EXPECT_EQ(sut.ecu_get_part_number(partNumber), 101);
    EXPECT_TRUE(log.Contains(
        LogLevel::kError, "ecu_get_part_number_from_dm() Error! genericuds service is not ready"));
    discovery_.Appear();
    EXPECT_CALL(*proxy_, CallHandleMessage(0x22, ElementsAre(0xF1, 0x87)))
        .WillOnce([](auto, const auto&) {
            return ara::core::MakeReadyFuture([] {
                return HandleMessageOutput{{0xF1, 0x87, 'V', '0', '4', '0', '0', '7', ' ', 0x00}};
            });
        })
        .WillOnce([](auto, const auto&) {
            return ara::core::MakeReadyFuture([]() -> HandleMessageOutput {
                throw ac::dm::genericuds::MakeApplicationError(
                    ac::dm::genericuds::GenericUDSServiceErrc::UDSServiceFailed);
            });
        });

    EXPECT_EQ(sut.ecu_get_part_number(partNumber), 100);
    EXPECT_EQ(partNumber, "V04007");
    EXPECT_TRUE(log.Contains("ecu_get_part_number_from_dm(2) part number: V04007"));
    EXPECT_EQ(sut.ecu_get_part_number(partNumber), 2);
    EXPECT_EQ(partNumber, "V04007");
    EXPECT_TRUE(log.Contains(
        "ecu_get_part_number_from_dm() Exception=GenericUDSService::UDSServiceFailed::2"));
}

TEST(TesmoIdPathTest, DevelopmentHostsMayPointElsewhere) {
    ::unsetenv("KELVANE_TESMO_ID_PATH");
    EXPECT_EQ(TesmoIdPath(), "/data/target/yelt_ids/tesmo_string.bin");
    ::setenv("KELVANE_TESMO_ID_PATH", "/tmp/tesmo.bin", 1);
    EXPECT_EQ(TesmoIdPath(), "/tmp/tesmo.bin");
    ::setenv("KELVANE_TESMO_ID_PATH", "", 1);
    EXPECT_EQ(TesmoIdPath(), "/data/target/yelt_ids/tesmo_string.bin");
    ::unsetenv("KELVANE_TESMO_ID_PATH");
}

}  // namespace
}  // namespace qervo::tee
