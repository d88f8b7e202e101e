#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "csc_logging/log_capture.hpp"
#include "test_support/scoped_environment.hpp"
#include "test_support/temporary_directory.hpp"
#include "vi_connector/vi_connector.hpp"

namespace vi_connector {
namespace {

using kelvane::testing::ScopedEnvironment;
using kelvane::testing::TemporaryDirectory;

constexpr const char* kId = "TTVI-Kelvane-C003.COzelkDlcChallenge";

// A started connector whose one transaction takes its token from `tokenLine`.
struct TokenSource {
    explicit TokenSource(const std::string& tokenLine)
        : sut(nullptr, nullptr,
              dir.Write("vi.ini", std::string("[transaction ") + kId +
                                      "]\nurl=http://127.0.0.1:1/c\n" + tokenLine + "\n")) {
        sut.Start();
        sut.Stop();  // joins the start, keeps the configuration
    }

    TemporaryDirectory dir;
    VIConnector sut;
};

TEST(BearerTokenTest, OnlyASmallPrivateFileOfTokenCharactersGivesATokenAndErrorsNeverShowIt) {
    TemporaryDirectory dir;
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
    struct Case {
        std::string tokenLine;
        std::string token;  // empty: refused
        std::string logged;
    };
    const std::vector<Case> cases = {
        {file("good", "abc-._~+/XYZ09==\n", 0600), "abc-._~+/XYZ09==", ""},
        {file("crlf", "abc\r\n", 0600), "abc", ""},  // the file's own line end is not part of it
        {file("shared", "abc\n", 0644), "abc", "can be read by group or others"},
        {file("header", "abc\r\nX-Evil: 1\n", 0600), "", "token for " + std::string(kId)},
        {file("space", "hunter token\n", 0600), "", "holds characters"},
        {file("nul", std::string("hun\0ter", 7), 0600), "", "holds characters"},
        {file("del", "hunter\x7f", 0600), "", "holds characters"},
        {file("equals", "hun=ter", 0600), "", "holds characters"},
        {file("empty", "\n", 0600), "", dir.File("empty")},
        {file("large", std::string(8 * 1024 + 1, 'a'), 0600), "", "larger than 8192 bytes"},
        {"token_file=" + dir.File("link"), "", "symbolic link"},
        {"token_file=" + dir.File("fifo"), "", "not a regular file"},
        {"token_file=" + dir.Path(), "", "not a regular file"},
        {"token_file=" + dir.File("missing"), "", "cannot be opened"},
        {"token=inline with-space", "", "from the inline token of"},
        {"token_credential=backend-token", "from-systemd", ""},
    };
    for (const auto& [tokenLine, token, logged] : cases) {
        SCOPED_TRACE(tokenLine);
        csc_logging::LogCapture log;
        TokenSource source(tokenLine);

        const auto result = source.sut.GetToken(kId);

        EXPECT_EQ(result.token, token);
        EXPECT_EQ(result.status == 1, !token.empty());
        EXPECT_TRUE(logged.empty() ? log.Texts().empty() : log.Contains(logged)) << log.Dump();
        EXPECT_FALSE(log.Contains("hunter") || log.Contains("with-space")) << log.Dump();
    }
    const ScopedEnvironment unset("CREDENTIALS_DIRECTORY", std::nullopt);
    csc_logging::LogCapture log;
    TokenSource source("token_credential=backend-token");
    EXPECT_NE(source.sut.GetToken(kId).status, 1U);
    EXPECT_TRUE(log.Contains("CREDENTIALS_DIRECTORY is not set")) << log.Dump();
    EXPECT_EQ(source.sut.GetInvocationUrl(kId).url, "http://127.0.0.1:1/c");
    EXPECT_NE(source.sut.GetInvocationUrl("unknown").status, 0U);
    EXPECT_NE(source.sut.GetToken("unknown").status, 1U);
}

}  // namespace
}  // namespace vi_connector
