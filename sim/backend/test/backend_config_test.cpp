#include "backend_sim/backend_config.hpp"

#include <gtest/gtest.h>

#include "test_support/temporary_directory.hpp"

namespace backend_sim {
namespace {

using kelvane::testing::TemporaryDirectory;

TEST(BackendConfigTest, IniFileSetsEverySection) {
    TemporaryDirectory directory;
    const auto path = directory.Write("backend.ini",
                                      "# demo backend\n"
                                      "[server]\n"
                                      "address = ::1\n"
                                      "port = 8443\n"
                                      "token = abc\n"
                                      "challenge-lifetime = 30\n"
                                      "[paths]\n"
                                      "challenge = /c\n"
                                      "download = /d\n"
                                      "feedback = /f\n"
                                      "[mqtt]\n"
                                      "port = 1884\n"
                                      "client-id = sim\n"
                                      "[faults]\n"
                                      "download = status:500:2\n");
    BackendConfig sut;
    std::string error;

    ASSERT_TRUE(sut.LoadIni(path, error)) << error;

    EXPECT_EQ(sut.address, "::1");
    EXPECT_EQ(sut.port, 8443);
    EXPECT_EQ(sut.token, "abc");
    EXPECT_EQ(sut.challengeLifetime, std::chrono::seconds(30));
    EXPECT_EQ(sut.challengePath, "/c");
    EXPECT_EQ(sut.downloadPath, "/d");
    EXPECT_EQ(sut.feedbackPath, "/f");
    EXPECT_EQ(sut.mqttPort, 1884);
    EXPECT_EQ(sut.mqttClientId, "sim");
    EXPECT_EQ(sut.faults, std::vector<std::string>{"download=status:500:2"});
    EXPECT_TRUE(sut.Validate(error)) << error;
}

TEST(BackendConfigTest, IniProblemsNameFileSectionAndKey) {
    TemporaryDirectory directory;
    BackendConfig sut;
    std::string unknownKey;
    std::string badValue;
    std::string unknownSection;
    std::string missing;

    EXPECT_FALSE(sut.LoadIni(directory.Write("a.ini", "[server]\nprot=1\n"), unknownKey));
    EXPECT_FALSE(sut.LoadIni(directory.Write("b.ini", "[mqtt]\nport=0\n"), badValue));
    EXPECT_FALSE(sut.LoadIni(directory.Write("c.ini", "[srv]\nport=1\n"), unknownSection));
    EXPECT_FALSE(sut.LoadIni(directory.File("none.ini"), missing));

    EXPECT_NE(unknownKey.find("a.ini: [server] prot: unknown setting"), std::string::npos)
        << unknownKey;
    EXPECT_NE(badValue.find("b.ini: [mqtt] port: bad mqtt-port '0'"), std::string::npos)
        << badValue;
    EXPECT_NE(unknownSection.find("[srv] port: unknown setting"), std::string::npos)
        << unknownSection;
    EXPECT_NE(missing.find("none.ini"), std::string::npos) << missing;
}

TEST(BackendConfigTest, TokenFileGivesItsFirstLine) {
    TemporaryDirectory directory;
    BackendConfig sut;
    std::string error;

    ASSERT_TRUE(sut.Set("token-file", directory.Write("token", "s3cret\r\nignored\n"), error))
        << error;
    EXPECT_EQ(sut.token, "s3cret");
    EXPECT_FALSE(sut.Set("token-file", directory.File("missing"), error));
    EXPECT_NE(error.find("cannot read a token"), std::string::npos);
    EXPECT_FALSE(sut.Set("token-file", directory.Write("empty", "\n"), error));
}

TEST(BackendConfigTest, SettingsAreCheckedOneByOne) {
    BackendConfig sut;
    std::string error;

    EXPECT_TRUE(sut.Set("port", "0", error));
    EXPECT_FALSE(sut.Set("port", "65536", error));
    EXPECT_FALSE(sut.Set("challenge-path", "zelk", error));
    EXPECT_FALSE(sut.Set("challenge-path", "/admin/x", error));
    EXPECT_FALSE(sut.Set("token", "two words", error));
    EXPECT_FALSE(sut.Set("secret", "", error));
    EXPECT_FALSE(sut.Set("mqtt-topic", "a/#", error));
    EXPECT_FALSE(sut.Set("challenge-lifetime", "0", error));
    EXPECT_FALSE(sut.Set("colour", "blue", error));
    EXPECT_EQ(error, "unknown setting 'colour'");
}

TEST(BackendConfigTest, OnlyLoopbackAddressesAndDistinctPathsAreValid) {
    const auto valid = [](const std::string& address, const std::string& download) {
        BackendConfig config;
        config.address = address;
        config.downloadPath = download;
        std::string error;
        return config.Validate(error);
    };

    EXPECT_TRUE(valid("127.0.0.1", "/zelk/dlc/download"));
    EXPECT_TRUE(valid("127.1.2.3", "/zelk/dlc/download"));
    EXPECT_TRUE(valid("::1", "/zelk/dlc/download"));
    EXPECT_FALSE(valid("0.0.0.0", "/zelk/dlc/download"));
    EXPECT_FALSE(valid("::", "/zelk/dlc/download"));
    EXPECT_FALSE(valid("192.168.1.10", "/zelk/dlc/download"));
    EXPECT_FALSE(valid("localhost", "/zelk/dlc/download"));
    EXPECT_FALSE(valid("127.0.0.1", "/zelk/dlc/challenge"));
}

}  // namespace
}  // namespace backend_sim
