#include "ini_file_reader/ini_file_reader.hpp"

#include <gtest/gtest.h>

#include "test_support/temporary_directory.hpp"

namespace ini_file_reader {
namespace {

TEST(IniFileReaderTest, ReadsSectionsKeysAndValuesSplitAtTheFirstEquals) {
    kelvane::testing::TemporaryDirectory dir;
    IniFileReader sut;

    const bool ok = sut.Load(dir.Write("test.ini",
                                       "top = level\n"
                                       "# a comment = not a key\n"
                                       "[mqtt]\n"
                                       "  host = 127.0.0.1 \r\n"
                                       "token=abc==def\n"
                                       "\n"
                                       "[ transaction types ]\n"
                                       "url=http://h:1/p?q=1\n"));

    EXPECT_TRUE(ok);
    EXPECT_EQ(sut.Get("", "top"), "level");
    EXPECT_EQ(sut.Get("mqtt", "host"), "127.0.0.1");
    EXPECT_EQ(sut.Get("mqtt", "token"), "abc==def");
    EXPECT_EQ(sut.Get("transaction types", "url"), "http://h:1/p?q=1");
    EXPECT_FALSE(sut.Get("mqtt", "# a comment").has_value());
    EXPECT_EQ(sut.Sections(), (std::vector<std::string>{"", "mqtt", "transaction types"}));
}

TEST(IniFileReaderTest, BadLinesAndAMissingFileAreReportedByNameAndTheRestIsKept) {
    IniFileReader sut;
    const std::string longest(IniFileReader::kMaxLineLength - 2, 'x');
    const std::string tooLong(IniFileReader::kMaxLineLength + 1, 'y');

    const bool ok = sut.Parse(
        "[s\nnoequals\n=value\nok=1\n[t]\na=" + longest + "\nb=" + tooLong + "\nc=3\n", "f.ini");

    EXPECT_FALSE(ok);
    EXPECT_EQ(
        sut.Errors(),
        (std::vector<std::string>{
            "f.ini:1: section header without ']', skipped", "f.ini:2: expected key=value, skipped",
            "f.ini:3: empty key, skipped", "f.ini:7: line longer than 2000 characters, skipped"}));
    EXPECT_EQ(sut.Get("", "ok"), "1");
    EXPECT_EQ(sut.Get("t", "a"), longest);
    EXPECT_FALSE(sut.Get("t", "b").has_value());
    EXPECT_EQ(sut.Get("t", "c"), "3");
    EXPECT_TRUE(sut.Parse("[u]\nd=4\n", "g.ini")) << "a second text replaces the first";
    EXPECT_EQ(sut.Sections(), (std::vector<std::string>{"u"}));
    EXPECT_TRUE(sut.Errors().empty());
    EXPECT_FALSE(sut.Load("/nonexistent/absent.ini"));
    EXPECT_TRUE(sut.Sections().empty()) << "nor does a file that cannot be read keep them";
    EXPECT_EQ(sut.Errors(),
              (std::vector<std::string>{
                  "/nonexistent/absent.ini: cannot open file: No such file or directory"}));
}

}  // namespace
}  // namespace ini_file_reader
