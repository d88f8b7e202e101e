#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <utility>

#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"

namespace csc_logging {
namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;
using kelvane::testing::ReadFile;

// A challenge as a hostile backend could send it, logged the way the feedback logs it.
const std::string kHostile =
    "Feedback payload - tesmoChallenge: '0A\r\nDLC Update finished successfully.\x1b[2K\\'";
const std::string kHostileEscaped =
    "Feedback payload - tesmoChallenge: '0A\\r\\nDLC Update finished successfully.\\x1b[2K\\\\'";

std::string DeviceAndInode(const std::string& path, int inodeOffset = 0) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + inodeOffset);
}

TEST(SinksTest, ConsoleLinesCarryTheirPriorityOnlyWhenStderrIsTheJournalAndEachRecordIsOneLine) {
    kelvane::testing::TemporaryDirectory dir;
    const std::string output = dir.Write("stderr.log", "");
    // Stderr is the journal, the journal is another file, no journal.
    const std::pair<std::string, bool> cases[] = {
        {DeviceAndInode(output), true}, {DeviceAndInode(output, 1), false}, {"", false}};
    for (const auto& [journalStream, prefixed] : cases) {
        SCOPED_TRACE(journalStream);
        ASSERT_EQ(::truncate(output.c_str(), 0), 0);
        ChildProcess program({{KELVANE_LOG_PROGRAM, "KV", "error:e", "warning:w",
                               "info:" + kHostile, "debug:d", "verbose:v"},
                              {{"KELVANE_LOG", "console"},
                               {"KELVANE_LOG_LEVEL", "verbose"},
                               {"JOURNAL_STREAM", journalStream}},
                              output});
        ASSERT_EQ(program.WaitForExit(5s), 0) << ReadFile(output);

        const auto line = [&](const char* priority, const std::string& rest) {
            return (prefixed ? priority : "") + std::string("T KV ") + rest + "\n";
        };
        EXPECT_EQ(std::regex_replace(
                      ReadFile(output),
                      std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z"), "T"),
                  line("<3>", "error e") + line("<4>", "warning w") +
                      line("<6>", "info " + kHostileEscaped) + line("<7>", "debug d") +
                      line("<7>", "verbose v"));
    }
}

// journald stood in for by the program itself, in a mount namespace whose /run is its own.
TEST(SinksTest, JournalEntriesCarryPriorityIdentifierAndTheStoryLinesMessageId) {
    if (::geteuid() != 0 ||
        std::system("unshare --mount --propagation private true 2>/dev/null") != 0) {
        GTEST_SKIP() << "needs root for a mount namespace of its own";
    }
    kelvane::testing::TemporaryDirectory dir;
    const std::string entries = dir.File("journal.txt");
    ChildProcess program({{"unshare", "--mount", "--propagation", "private", "sh", "-c",
                           "mount -t tmpfs tmpfs /run && exec \"$0\" \"$@\"", KELVANE_LOG_PROGRAM,
                           "--journal", entries, "KV", "error:Error downloading the container!",
                           "info:" + kHostile, "info:DLC Update Started",
                           "info:DLC Update pending! Connection state: 1", "debug:hidden"},
                          {},
                          dir.File("program.log")});
    ASSERT_EQ(program.WaitForExit(5s), 0) << ReadFile(dir.File("program.log"));

    const std::string identifier = "SYSLOG_IDENTIFIER=log_program\n";
    EXPECT_EQ(ReadFile(entries),
              "MESSAGE=Error downloading the container!\nPRIORITY=3\n" + identifier +
                  "MESSAGE_ID=6fa9953d325448d6a0f8b5ee4022351a\n\n"
                  "MESSAGE=" +
                  kHostileEscaped + "\nPRIORITY=6\n" + identifier + "\n" +
                  "MESSAGE=DLC Update Started\nPRIORITY=6\n" + identifier +
                  "MESSAGE_ID=cefcffe4823848bc91fc7670ea170fe7\n\n"
                  "MESSAGE=DLC Update pending! Connection state: 1\nPRIORITY=6\n" +
                  identifier + "MESSAGE_ID=7d5dde7aa10447f4b6939ba84836a6f8\n\n");
    EXPECT_EQ(ReadFile(dir.File("program.log")), "") << "nothing falls back to the console";
}

}  // namespace
}  // namespace csc_logging
