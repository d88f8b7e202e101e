#include "connector_config.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"
#include "vi_connector/vi_connector.hpp"

namespace vi_connector {
namespace {

using kelvane::testing::ScopedEnvironment;
using kelvane::testing::TemporaryDirectory;

TEST(ConnectorConfigTest, EachMistakeGivesOneSentenceNamingFileAndProblem) {
    TemporaryDirectory dir;
    const auto machineId = dir.Write("machine-id", "3d1219c7c4c5404aaa1f6d2a48adfda4\n");
    const std::string transaction = "[transaction T]\nurl=https://h/p\ntoken=t\n";
    const auto plain = [](const std::string& url) {
        return "[transaction T]\nurl=" + url + "\ntoken=t\n";
    };
    const auto mqttKey = "[mqtt]\ntls_ca_file=/etc/ca.pem\ntls_key_file=";
    const auto key = dir.Write("mqtt.key", "k");
    ASSERT_EQ(::symlink(key.c_str(), dir.File("key-link").c_str()), 0);
    struct Case {
        std::string content;
        std::string problem;  // empty: accepted
        mode_t mode = 0600;   // of the file itself
    };
    const std::vector<Case> cases = {
        {"[mqtt]\nport=70000\n" + transaction,
         "[mqtt] port='70000' is not a number from 1 to 65535"},
        {"[mqtt]\nhots=x\n" + transaction, "unknown key 'hots' in [mqtt]"},
        {"[mqqt]\n" + transaction, "unknown section [mqqt]"},
        {"[connection_state]\nmode=maybe\n" + transaction,
         "[connection_state] mode='maybe' is neither probe nor fixed"},
        {"[connection_state]\nprobe_retry_min_ms=9000\nprobe_retry_max_ms=5000\n" + transaction,
         "[connection_state] probe_retry_max_ms is below probe_retry_min_ms"},
        {"[transaction T]\ntoken=t\n", "[transaction T] has no url"},
        {"[transaction T]\nurl=https://h/p\n",
         "[transaction T] needs exactly one of token, token_file and token_credential"},
        {"[mqtt]\n", "no [transaction <id>] section"},
        {"", "cannot open file: No such file or directory"},
        {"[transaction T]\nurl=https://h/p\ntoken_credential=../etc/shadow\n",
         "is not a plain file name"},
        {"[mqtt]\nhost=broker.example\n" + transaction, "allow_plaintext = true"},
        {"[mqtt]\nhost=broker.example\nallow_plaintext=true\n" + transaction, ""},
        {"[mqtt]\nhost=broker.example\ntls_ca_file=/etc/ca.pem\n" + transaction, ""},
        {"[mqtt]\nhost=127.3.2.1\n" + transaction, ""},
        // A bearer token crosses the network in plain text only when asked to.
        {plain("http://backend.example/p"),
         "[transaction T] url='http://backend.example/p' is plain http to a host that is not on "
         "loopback"},
        {plain("HTTP://10.0.0.1:80/p"), "set allow_plaintext = true"},
        {plain("http://10.0.0.1/p") + "allow_plaintext=yes\n",
         "[transaction T] allow_plaintext='yes' is neither true nor false"},
        {plain("http://10.0.0.1/p") + "allow_plaintext=true\n", ""},
        {plain("http://[::1]:8080/p"), ""},
        // Secret files: the key libmosquitto opens, and this file once it holds a token.
        {mqttKey + key + "\n" + transaction, ""},
        {mqttKey + dir.File("key-link") + "\n" + transaction,
         "[mqtt] tls_key_file: '" + dir.File("key-link") +
             "' cannot be opened: it is a symbolic link"},
        {transaction, "", 0640},
        {transaction,
         "[transaction T] has an inline token, so this file must be kept like a token file", 0604},
        {"[transaction T]\nurl=https://h/p\ntoken_file=/t\n", "", 0666},
        {"[mqtt]\nprotocol=3\n" + transaction, "[mqtt] protocol='3' is none of 5, 3.1.1 and auto"},
        {"[mqtt]\nsession_expiry=-1\n" + transaction,
         "[mqtt] session_expiry='-1' is not a number from 0 to 4294967295"},
    };
    for (const auto& [content, problem, mode] : cases) {
        SCOPED_TRACE(content);
        const auto path = content.empty() ? dir.File("none.ini") : dir.Write("vi.ini", content);
        ::chmod(path.c_str(), mode);
        std::string error;

        const auto config = ConnectorConfig::Load(path, error, machineId);

        EXPECT_EQ(config.has_value(), problem.empty()) << error;
        if (!problem.empty()) {
            EXPECT_EQ(error.rfind(path + ": ", 0), 0U) << error;
            EXPECT_NE(error.find(problem), std::string::npos) << error;
        }
    }
}

TEST(ConnectorConfigTest, ClientIdComesFromTheMachineIdAndNeverFromAnythingCloneable) {
    TemporaryDirectory dir;
    const auto load = [&](const std::string& mqtt, const std::optional<std::string>& machineId) {
        const auto idPath = machineId ? dir.Write("machine-id", *machineId) : dir.File("none");
        std::string error;
        auto config = ConnectorConfig::Load(
            dir.Write("vi.ini", "[mqtt]\n" + mqtt + "[transaction T]\nurl=https://h/p\ntoken=t\n"),
            error, idPath);
        return config ? config->mqtt.clientId : "error: " + error;
    };
    const auto id = load("", "3d1219c7c4c5404aaa1f6d2a48adfda4\n");

    EXPECT_EQ(id.size(), 24U) << id;
    EXPECT_EQ(id.rfind("kelvane-", 0), 0U) << id;
    EXPECT_EQ(id.find("3d1219c7"), std::string::npos) << "the machine id is not disclosed";
    EXPECT_NE(load("", "ab1219c7c4c5404aaa1f6d2a48adfda4\n"), id);
    EXPECT_EQ(load("client_id=vehicle-7\n", std::nullopt), "vehicle-7");
    for (const auto& unusable : std::vector<std::optional<std::string>>{
             std::nullopt, std::string("\n"), std::string("uninitialized\n")}) {
        const auto error = load("", unusable);
        EXPECT_NE(error.find("[mqtt] client_id is not set and " +
                             dir.File(unusable ? "machine-id" : "none")),
                  std::string::npos)
            << error;
    }
}

constexpr const char* kId = "TTVI-Kelvane-C003.COzelkDlcChallenge";

TEST(BearerTokenTest, OnlyASmallPrivateFileOfTokenCharactersGivesATokenAndErrorsNeverShowIt) {
    TemporaryDirectory dir;
    const auto startedWith = [&](const std::string& tokenLine) {
        auto connector = std::make_unique<VIConnector>(
            nullptr, nullptr,
            dir.Write("vi.ini", std::string("[transaction ") + kId +
                                    "]\nurl=http://127.0.0.1:1/c\n" + tokenLine + "\n"));
        connector->Start();
        connector->Stop();  // joins the start, keeps the configuration
        return connector;
    };
    const auto file = [&](const std::string& name, const std::string& content, mode_t mode) {
        const auto path = dir.Write(name, content);
        ::chmod(path.c_str(), mode);
        return "token_file=" + path;
    };
    ASSERT_EQ(::symlink(dir.Write("real", "abc\n").c_str(), dir.File("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    TemporaryDirectory credentials;
    ::chmod(credentials.Write("backend-token", "from-systemd\n").c_str(), 0400);
    const ScopedEnvironment credentialsDirectory("CREDENTIALS_DIRECTORY", credentials.Path());
    // The token line, the token it gives (empty: refused) and the line logged.
    std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        {file("good", "abc-._~+/XYZ09==\n", 0600), "abc-._~+/XYZ09==", ""},
        {file("crlf", "abc\r\n", 0600), "abc", ""},  // the file's own line end is not part of it
        {file("writable", "abc\n", 0620), "", "can be written by group or others"},
        {file("header", "abc\r\nX-Evil: 1\n", 0600), "", "token for " + std::string(kId)},
        {file("space", "hunter token\n", 0600), "", "holds characters"},
        {file("nul", std::string("hun\0ter", 7), 0600), "", "holds characters"},
        {file("equals", "hun=ter", 0600), "", "holds characters"},
        {file("empty", "\n", 0600), "", dir.File("empty")},
        {file("large", std::string(8 * 1024 + 1, 'a'), 0600), "", "larger than 8192 bytes"},
        {"token_file=" + dir.File("link"), "", "symbolic link"},
        {"token_file=" + dir.File("fifo"), "", "not a regular file"},
        {"token=inline with-space", "", "from the inline token of"},
        {"token_credential=backend-token", "from-systemd", ""},
    };
    if (::geteuid() == 0) {
        const auto foreign = file("foreign", "abc\n", 0600);
        ASSERT_EQ(::chown(dir.File("foreign").c_str(), 65534, 65534), 0);
        cases.emplace_back(foreign, "", "is owned by uid 65534, neither root nor the service user");
    }
    for (const auto& [tokenLine, token, logged] : cases) {
        SCOPED_TRACE(tokenLine);
        csc_logging::LogCapture log;
        const auto sut = startedWith(tokenLine);

        const auto result = sut->GetToken(kId);

        EXPECT_EQ(result.token, token);
        EXPECT_EQ(result.status == 1, !token.empty());
        // One line per problem, naming it.
        EXPECT_EQ(log.Texts().size(), logged.empty() ? 0U : 1U) << log.Dump();
        EXPECT_TRUE(logged.empty() || log.Contains(logged)) << log.Dump();
        EXPECT_FALSE(log.Contains("hunter") || log.Contains("with-space")) << log.Dump();
    }
    const ScopedEnvironment unset("CREDENTIALS_DIRECTORY", std::nullopt);
    csc_logging::LogCapture log;
    const auto sut = startedWith("token_credential=backend-token");
    EXPECT_NE(sut->GetToken(kId).status, 1U);
    EXPECT_TRUE(log.Contains("CREDENTIALS_DIRECTORY is not set")) << log.Dump();
    EXPECT_EQ(sut->GetInvocationUrl(kId).url, "http://127.0.0.1:1/c");
    EXPECT_NE(sut->GetInvocationUrl("unknown").status, 0U);
    EXPECT_NE(sut->GetToken("unknown").status, 1U);
}

}  // namespace
}  // namespace vi_connector
