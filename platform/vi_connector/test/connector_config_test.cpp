#include "connector_config.hpp"

#include <gtest/gtest.h>

#include "test_support/temporary_directory.hpp"

namespace vi_connector {
namespace {

using kelvane::testing::TemporaryDirectory;

TEST(ConnectorConfigTest, ReadsEverySection) {
    TemporaryDirectory dir;
    const auto path = dir.Write("vi.ini",
                                "[mqtt]\n"
                                "host = ::1\nport = 18830\nclient_id = car-1\nkeep_alive = 10\n"
                                "[connection_state]\nmode = fixed\nstate = 3\n"
                                "[transaction TTVI-Kelvane-C003.COzelkDlcChallenge]\n"
                                "url = http://127.0.0.1:8080/challenge\ntoken = abc\n"
                                "[transaction TTVI-Kelvane-C003.COzelkDlcDownload]\n"
                                "url = http://127.0.0.1:8080/download\ntoken_file = /run/token\n");
    std::string error;

    const auto config = ConnectorConfig::Load(path, error);

    ASSERT_TRUE(config.has_value()) << error;
    EXPECT_EQ(config->mqtt.host, "::1");
    EXPECT_EQ(config->mqtt.port, 18830);
    EXPECT_EQ(config->mqtt.clientId, "car-1");
    EXPECT_EQ(config->mqtt.keepAliveSeconds, 10);
    EXPECT_EQ(config->connectionState.mode, ConnectionStateSettings::Mode::kFixed);
    EXPECT_EQ(config->connectionState.fixedState, 3);
    ASSERT_EQ(config->transactions.size(), 2U);
    EXPECT_EQ(config->transactions.at("TTVI-Kelvane-C003.COzelkDlcChallenge").token, "abc");
    EXPECT_EQ(config->transactions.at("TTVI-Kelvane-C003.COzelkDlcDownload").tokenFile,
              "/run/token");
}

TEST(ConnectorConfigTest, EachMistakeGivesOneSentenceNamingFileAndProblem) {
    TemporaryDirectory dir;
    const std::string transaction = "[transaction T]\nurl=http://h/p\ntoken=t\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"[mqtt]\nport=70000\n" + transaction,
         "[mqtt] port='70000' is not a number from 1 to 65535"},
        {"[mqtt]\nhots=x\n" + transaction, "unknown key 'hots' in [mqtt]"},
        {"[mqqt]\n" + transaction, "unknown section [mqqt]"},
        {"[connection_state]\nmode=maybe\n" + transaction,
         "[connection_state] mode='maybe' is neither probe nor fixed"},
        {"[transaction T]\ntoken=t\n", "[transaction T] has no url"},
        {"[transaction T]\nurl=http://h/p\n",
         "[transaction T] needs exactly one of token, token_file and token_credential"},
        {"[mqtt]\n", "no [transaction <id>] section"},
        {"", "cannot open file: No such file or directory"},
    };
    for (const auto& [content, problem] : cases) {
        const auto path = content.empty() ? dir.File("none.ini") : dir.Write("bad.ini", content);
        std::string error;

        EXPECT_FALSE(ConnectorConfig::Load(path, error).has_value()) << content;
        EXPECT_EQ(error, path + ": " + problem);
    }
}

}  // namespace
}  // namespace vi_connector
