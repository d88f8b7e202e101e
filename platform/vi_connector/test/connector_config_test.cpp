#include "connector_config.hpp"

#include <gtest/gtest.h>

#include "csc_logging/log_capture.hpp"
#include "test_support/temporary_directory.hpp"
#include "vi_connector/vi_connector.hpp"

namespace vi_connector {
namespace {

using kelvane::testing::TemporaryDirectory;

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
        {"[transaction T]\nurl=http://h/p\ntoken_credential=../etc/shadow\n",
         "is not a plain file name"},
        {"[mqtt]\nhost=broker.example\n" + transaction, "allow_plaintext = true"},
        {"[mqtt]\nhost=10.0.0.1\n" + transaction, "[mqtt] host='10.0.0.1' is not on loopback"},
        {"[mqtt]\nhost=broker.example\nallow_plaintext=true\n" + transaction, ""},
        {"[mqtt]\nhost=broker.example\ntls_ca_file=/etc/ca.pem\n" + transaction, ""},
        {"[mqtt]\nhost=127.3.2.1\n" + transaction, ""},
        {"[mqtt]\nhost=::1\n" + transaction, ""},
    };
    for (const auto& [content, problem] : cases) {
        SCOPED_TRACE(content);
        const auto path = content.empty() ? dir.File("none.ini") : dir.Write("vi.ini", content);
        std::string error;

        const auto config = ConnectorConfig::Load(path, error);

        EXPECT_EQ(config.has_value(), problem.empty());
        if (!problem.empty()) {
            EXPECT_EQ(error.rfind(path + ": ", 0), 0U) << error;
            EXPECT_NE(error.find(problem), std::string::npos) << error;
        }
    }
}

TEST(ConnectorConfigTest, DefaultClientIdIsThisDevicesOwnAndPlainHttpToARemoteHostWarnsAtStart) {
    TemporaryDirectory dir;
    const auto path = dir.Write("vi.ini",
                                "[transaction Remote]\nurl=http://backend.example/p\ntoken=t\n"
                                "[transaction Local]\nurl=http://[::1]:8080/p\ntoken=t\n"
                                "[transaction Tls]\nurl=https://backend.example/p\ntoken=t\n");
    csc_logging::LogCapture log;
    std::string error;
    VIConnector sut(nullptr, nullptr, path);

    const auto config = ConnectorConfig::Load(path, error);
    sut.Start();
    sut.Stop();

    ASSERT_TRUE(config.has_value()) << error;
    EXPECT_EQ(config->mqtt.clientId, DeviceClientId());
    EXPECT_EQ(config->mqtt.clientId.size(), std::string("kelvane-").size() + 16);
    EXPECT_EQ(config->mqtt.clientId.rfind("kelvane-", 0), 0U);
    EXPECT_EQ(log.Count(csc_logging::LogLevel::kWarning, "plain http"), 1U) << log.Dump();
    EXPECT_TRUE(log.Contains("[transaction Remote] sends plain http to backend.example"));
}

}  // namespace
}  // namespace vi_connector
