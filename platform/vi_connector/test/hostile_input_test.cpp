#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "connector_config.hpp"
#include "csc_logging/log_capture.hpp"
#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"
#include "vi_connector/vi_connector.hpp"

namespace vi_connector {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ScopedEnvironment;
using kelvane::testing::TemporaryDirectory;

constexpr const char* kId = "TTVI-Kelvane-C003.COzelkDlcChallenge";

// A started connector whose one transaction takes its token from `tokenLine`.
class TokenSource {
public:
    explicit TokenSource(const std::string& tokenLine)
        : sut_(nullptr, nullptr,
               dir_.Write("vi.ini", std::string("[transaction ") + kId +
                                        "]\nurl=http://127.0.0.1:1/c\n" + tokenLine + "\n")) {
        sut_.Start();
        sut_.Stop();  // joins the start, keeps the configuration
    }
    const TemporaryDirectory& Dir() const { return dir_; }
    TokenResult Get() { return sut_.GetToken(kId); }

private:
    TemporaryDirectory dir_;
    VIConnector sut_;
};

TEST(BearerTokenTest, OnlyTokenCharactersReachARequestErrorsNeverShowItAndSharedFilesWarn) {
    struct Case {
        std::string content;
        bool accepted;
    };
    const std::vector<Case> cases = {
        {"abc-._~+/XYZ09==\n", true},
        {"abc\r\n", true},  // the file's own line end is not part of it
        {"abc\r\nX-Evil: 1\n", false},
        {"secret token\n", false},
        {"secret\ttoken", false},
        {std::string("sec\0ret", 7), false},
        {"secret\x7f", false},
        {"=secret", false},
        {"sec=ret", false},
        {"\n", false},
    };
    for (const auto& [content, accepted] : cases) {
        SCOPED_TRACE(content);
        TemporaryDirectory dir;
        const auto file = dir.Write("token", content);
        ::chmod(file.c_str(), 0600);
        TokenSource source("token_file=" + file);
        csc_logging::LogCapture log;

        const auto result = source.Get();

        EXPECT_EQ(result.status == 1, accepted);
        if (!accepted) {
            EXPECT_TRUE(result.token.empty());
            EXPECT_TRUE(log.Contains(std::string("token for ") + kId)) << log.Dump();
            EXPECT_TRUE(log.Contains("'" + file + "'")) << log.Dump();
            EXPECT_FALSE(log.Contains("secret")) << log.Dump();
        }
    }
    TokenSource inlineToken("token=inline with-space");
    csc_logging::LogCapture log;
    EXPECT_NE(inlineToken.Get().status, 1U);
    EXPECT_TRUE(log.Contains("from the inline token of")) << log.Dump();
    EXPECT_FALSE(log.Contains("with-space")) << log.Dump();

    TemporaryDirectory dir;
    const auto shared = dir.Write("token", "abc\n");
    ::chmod(shared.c_str(), 0644);
    TokenSource readableByOthers("token_file=" + shared);
    EXPECT_EQ(readableByOthers.Get().token, "abc");
    EXPECT_TRUE(log.Contains(csc_logging::LogLevel::kWarning,
                             "'" + shared + "' can be read by group or others"))
        << log.Dump();
}

TEST(BearerTokenTest, TokenFileMustBeASmallRegularFileNotALink) {
    TemporaryDirectory dir;
    const auto real = dir.Write("real", "abc\n");
    ::chmod(real.c_str(), 0600);
    ASSERT_EQ(::symlink(real.c_str(), dir.File("link").c_str()), 0);
    const auto large = dir.Write("large", std::string(8 * 1024 + 1, 'a'));
    ::chmod(large.c_str(), 0600);
    ASSERT_EQ(::mkfifo(dir.File("fifo").c_str(), 0600), 0);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {dir.File("link"), "symbolic link"},       {large, "larger than 8192 bytes"},
        {dir.File("fifo"), "not a regular file"},  {dir.Path(), "not a regular file"},
        {dir.File("missing"), "cannot be opened"},
    };
    for (const auto& [path, problem] : cases) {
        TokenSource source("token_file=" + path);
        csc_logging::LogCapture log;

        EXPECT_NE(source.Get().status, 1U) << path;
        EXPECT_TRUE(log.Contains(problem)) << log.Dump();
    }
}

TEST(BearerTokenTest, CredentialIsReadFromTheCredentialsDirectory) {
    TemporaryDirectory credentials;
    ::chmod(credentials.Write("backend-token", "from-systemd\n").c_str(), 0400);
    TokenSource source("token_credential=backend-token");

    {
        ScopedEnvironment set("CREDENTIALS_DIRECTORY", credentials.Path());
        EXPECT_EQ(source.Get().token, "from-systemd");
    }
    ScopedEnvironment unset("CREDENTIALS_DIRECTORY", std::nullopt);
    csc_logging::LogCapture log;
    EXPECT_NE(source.Get().status, 1U);
    EXPECT_TRUE(log.Contains("CREDENTIALS_DIRECTORY is not set")) << log.Dump();
}

TEST(ConnectorConfigSafetyTest, PlainTextToARemoteBrokerIsRefusedUnlessAllowed) {
    TemporaryDirectory dir;
    const std::string transaction = "[transaction T]\nurl=http://h/p\ntoken=t\n";
    const std::vector<std::pair<std::string, bool>> cases = {
        {"host=broker.example", false},
        {"host=10.0.0.1", false},
        {"host=broker.example\nallow_plaintext=true", true},
        {"host=broker.example\ntls_ca_file=/etc/ca.pem", true},
        {"host=localhost", true},
        {"host=127.3.2.1", true},
        {"host=::1", true},
    };
    for (const auto& [mqtt, accepted] : cases) {
        const auto path = dir.Write("vi.ini", "[mqtt]\n" + mqtt + "\n" + transaction);
        std::string error;

        EXPECT_EQ(ConnectorConfig::Load(path, error).has_value(), accepted) << mqtt;
        if (!accepted) {
            EXPECT_NE(error.find("[mqtt] host="), std::string::npos) << error;
            EXPECT_NE(error.find("allow_plaintext = true"), std::string::npos) << error;
        }
    }
    const auto path = dir.Write("vi.ini", transaction +
                                              "[transaction U]\nurl=http://h/p\n"
                                              "token_credential=../etc/shadow\n");
    std::string error;
    EXPECT_FALSE(ConnectorConfig::Load(path, error).has_value());
    EXPECT_NE(error.find("is not a plain file name"), std::string::npos) << error;
}

TEST(ConnectorConfigSafetyTest, DefaultClientIdIsThisDevicesOwn) {
    TemporaryDirectory dir;
    const auto path = dir.Write("vi.ini", "[transaction T]\nurl=http://h/p\ntoken=t\n");
    std::string error;

    const auto config = ConnectorConfig::Load(path, error);

    ASSERT_TRUE(config.has_value()) << error;
    EXPECT_EQ(config->mqtt.clientId, DeviceClientId());
    EXPECT_EQ(config->mqtt.clientId.size(), std::string("kelvane-").size() + 16);
    EXPECT_EQ(config->mqtt.clientId.rfind("kelvane-", 0), 0U);
}

TEST(ConnectorConfigSafetyTest, PlainHttpToARemoteHostWarnsAtStartNamingTheTransaction) {
    TemporaryDirectory dir;
    const auto path = dir.Write("vi.ini",
                                "[transaction Remote]\nurl=http://backend.example/p\ntoken=t\n"
                                "[transaction Local]\nurl=http://[::1]:8080/p\ntoken=t\n"
                                "[transaction Tls]\nurl=https://backend.example/p\ntoken=t\n");
    csc_logging::LogCapture log;
    VIConnector sut(nullptr, nullptr, path);

    sut.Start();
    sut.Stop();

    EXPECT_EQ(log.Count(csc_logging::LogLevel::kWarning, "plain http"), 1U) << log.Dump();
    EXPECT_TRUE(log.Contains("[transaction Remote] sends plain http to backend.example"));
}

}  // namespace
}  // namespace vi_connector
