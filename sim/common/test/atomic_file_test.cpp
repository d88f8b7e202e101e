#include "sim_common/atomic_file.hpp"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "test_support/temporary_directory.hpp"

namespace sim_common {
namespace {

using kelvane::testing::ReadFile;
using kelvane::testing::TemporaryDirectory;

std::vector<std::string> Entries(const std::string& directory) {
    std::vector<std::string> names;
    DIR* dir = ::opendir(directory.c_str());
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    ::closedir(dir);
    return names;
}

TEST(AtomicFileTest, ReplacesContentAndLeavesNoTemporaryBehind) {
    TemporaryDirectory directory;
    const auto path = directory.Write("state", "old");
    std::string error;

    ASSERT_TRUE(WriteFileAtomically(path, std::string("new\0content", 11), error, 0600)) << error;

    EXPECT_EQ(ReadFile(path), std::string("new\0content", 11));
    EXPECT_EQ(Entries(directory.Path()), std::vector<std::string>{"state"});
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(AtomicFileTest, FailureKeepsTheOldFileAndSaysWhy) {
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root writes into read-only directories";
    }
    TemporaryDirectory directory;
    const auto path = directory.Write("state", "old");
    ::chmod(directory.Path().c_str(), 0500);
    std::string error;

    const bool written = WriteFileAtomically(path, "new", error);

    ::chmod(directory.Path().c_str(), 0700);
    EXPECT_FALSE(written);
    EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
    EXPECT_EQ(ReadFile(path), "old");
}

TEST(AtomicFileTest, MissingDirectoryIsAnErrorNotACrash) {
    TemporaryDirectory directory;
    std::string error;

    EXPECT_FALSE(WriteFileAtomically(directory.File("missing/state"), "x", error));
    EXPECT_NE(error.find("missing/state"), std::string::npos) << error;
}

TEST(AtomicFileTest, StaleTemporariesOfTheFileAreRemovedOthersKept) {
    TemporaryDirectory directory;
    const auto path = directory.Write("state", "current");
    directory.Write("state.tmp-123-0", "half");
    directory.Write("state.tmp-456-9", "half");
    directory.Write("other.tmp-1-0", "someone else's");

    RemoveStaleTemporaries(path);

    auto entries = Entries(directory.Path());
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ(entries, (std::vector<std::string>{"other.tmp-1-0", "state"}));
}

}  // namespace
}  // namespace sim_common
