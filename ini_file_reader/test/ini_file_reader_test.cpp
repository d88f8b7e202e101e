#include "ini_file_reader/ini_file_reader.hpp"

#include <gtest/gtest.h>

#include "test_support/temporary_directory.hpp"

namespace ini_file_reader {
namespace {

TEST(IniFileReaderTest, ReadsSectionsKeysAndValuesSplitAtTheFirstEquals) {
    IniFileReader sut;

    const bool ok = sut.Parse(
        "top = level\n"
        "# a comment = not a key\n"
        "[mqtt]\n"
        "  host = 127.0.0.1 \r\n"
        "token=abc==def\n"
        "\n"
        "[ transaction types ]\n"
        "url=http://h:1/p?q=1\n",
        "test.ini");

    EXPECT_TRUE(ok);
    EXPECT_EQ(sut.Get("", "top"), "level");
    EXPECT_EQ(sut.Get("mqtt", "host"), "127.0.0.1");
    EXPECT_EQ(sut.Get("mqtt", "token"), "abc==def");
    EXPECT_EQ(sut.Get("transaction types", "url"), "http://h:1/p?q=1");
    EXPECT_FALSE(sut.Get("mqtt", "# a comment").has_value());
    EXPECT_EQ(sut.Get("mqtt", "missing", "fallback"), "fallback");
    EXPECT_EQ(sut.Sections(), (std::vector<std::string>{"", "mqtt", "transaction types"}));
}

TEST(IniFileReaderTest, OverLongLineIsReportedWithFileAndLineAndTheRestIsKept) {
    IniFileReader sut;
    const std::string longest(IniFileReader::kMaxLineLength - 2, 'x');
    const std::string tooLong(IniFileReader::kMaxLineLength + 1, 'y');

    const bool ok = sut.Parse("[s]\na=" + longest + "\nb=" + tooLong + "\nc=3\n", "/etc/x.ini");

    EXPECT_FALSE(ok);
    ASSERT_EQ(sut.Errors().size(), 1U);
    EXPECT_EQ(sut.Errors()[0].rfind("/etc/x.ini:3: line longer than 2000", 0), 0U);
    EXPECT_EQ(sut.Get("s", "a"), longest);
    EXPECT_FALSE(sut.Get("s", "b").has_value());
    EXPECT_EQ(sut.Get("s", "c"), "3");
}

TEST(IniFileReaderTest, MalformedLinesAreReportedAndSkipped) {
    IniFileReader sut;

    sut.Parse("[s\nnoequals\n=value\nok=1\n", "f.ini");

    EXPECT_EQ(sut.Errors(),
              (std::vector<std::string>{"f.ini:1: section header without ']', skipped",
                                        "f.ini:2: expected key=value, skipped",
                                        "f.ini:3: empty key, skipped"}));
    EXPECT_EQ(sut.Get("", "ok"), "1");
}

TEST(IniFileReaderTest, MissingFileIsAClearErrorNamingTheFile) {
    kelvane::testing::TemporaryDirectory dir;
    IniFileReader sut;

    EXPECT_FALSE(sut.Load(dir.File("absent.ini")));
    ASSERT_EQ(sut.Errors().size(), 1U);
    EXPECT_NE(sut.Errors()[0].find(dir.File("absent.ini") + ": cannot open file"),
              std::string::npos);
}

TEST(IniFileReaderTest, LoadsAFileFromDisk) {
    kelvane::testing::TemporaryDirectory dir;
    IniFileReader sut;

    EXPECT_TRUE(sut.Load(dir.Write("a.ini", "[phm]\nkeep_alive_ms=500\n")));
    EXPECT_EQ(sut.Get("phm", "keep_alive_ms"), "500");
}

}  // namespace
}  // namespace ini_file_reader
