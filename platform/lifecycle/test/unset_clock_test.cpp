#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "test_support/child_process.hpp"
#include "test_support/temporary_directory.hpp"

namespace {

using namespace std::chrono_literals;
using kelvane::testing::ChildProcess;

// libfaketime moves the clock of one process only; the machine's stays as it is.
TEST(UnsetClockTest, AClockEarlierThanTheBuildDrawsOneWarningAndASetOneNone) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "libfaketime cannot be preloaded before a sanitizer's runtime";
#endif
    if (std::system("command -v faketime >/dev/null") != 0) {
        GTEST_SKIP() << "faketime is not installed (tools/bootstrap.sh installs it)";
    }
    if (KELVANE_BUILD_EPOCH == 0) {
        GTEST_SKIP() << "this build knows no date of its own";
    }
    kelvane::testing::TemporaryDirectory dir;
    const std::regex warning(
        "KV warning System clock reads 2001-09-09 01:46:.*the clock is not set");
    // Under faketime the clock reads 2001, and it warns.
    for (const auto& argv : {std::vector<std::string>{"faketime", "2001-09-09 01:46:40",
                                                      KELVANE_EXECUTION_CLIENT_PROGRAM},
                             std::vector<std::string>{KELVANE_EXECUTION_CLIENT_PROGRAM}}) {
        const std::string output = dir.Write("output.log", "");
        ChildProcess program({argv, {{"KELVANE_LOG", "console"}}, output});

        ASSERT_EQ(program.WaitForExit(10s), 0);

        const std::string log = kelvane::testing::ReadFile(output);
        EXPECT_EQ(std::regex_search(log, warning), argv.front() == "faketime") << log;
    }
}

}  // namespace
