#include "base64_utils/base64_utils.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace base64_utils {
namespace {

std::vector<std::uint8_t> Bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

TEST(Base64UtilsTest, EncodesStringsAndVectorsInBothAlphabets) {
    EXPECT_EQ(Base64Utils::Base64Encode(""), "");
    EXPECT_EQ(Base64Utils::Base64Encode("f"), "Zg==");
    EXPECT_EQ(Base64Utils::Base64Encode("fo"), "Zm8=");
    EXPECT_EQ(Base64Utils::Base64Encode("foo"), "Zm9v");
    EXPECT_EQ(Base64Utils::Base64Encode("\xFB\xFF"), "+/8=");
    EXPECT_EQ(Base64Utils::Base64UrlEncode("\xFB\xFF"), "-_8=");
    EXPECT_EQ(Base64Utils::Base64UrlEncode("\xFB\xFF\xBF"), "-_-_");
    EXPECT_EQ(Base64Utils::Base64UrlEncode(""), "");
    EXPECT_EQ(Base64Utils::Base64EncodeFromBinaryVector({0xFB, 0xFF}), "+/8=");
    EXPECT_EQ(Base64Utils::Base64UrlEncodeFromBinaryVector({0xFB, 0xFF}), "-_8=");
    EXPECT_EQ(Base64Utils::Base64EncodeFromBinaryVector({0x00}), "AA==");
}

TEST(Base64UtilsTest, DecodesLenientlyAndGivesEmptyResultWhenNothingOrALoneSextetIsLeft) {
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9v"), "foo");
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9v\n"), "foo");
    EXPECT_EQ(Base64Utils::Base64Decode("Zm 9v"), "foo");
    EXPECT_EQ(Base64Utils::Base64Decode("Zm8"), "fo");
    EXPECT_EQ(Base64Utils::Base64Decode("Zg"), "f");
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9v!Zm9v"), "foo");
    EXPECT_EQ(Base64Utils::Base64Decode("Z"), "");
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9vZ"), "");
    EXPECT_EQ(Base64Utils::Base64Decode("=Zm9v"), "");
    EXPECT_EQ(Base64Utils::Base64Decode(""), "");
    EXPECT_EQ(Base64Utils::Base64Decode("  \n"), "");

    EXPECT_EQ(Base64Utils::Base64DecodeToBinaryVector("Zm9v!Zm9v"), Bytes("foo"));
    EXPECT_EQ(Base64Utils::Base64DecodeToBinaryVector("-_8="), Bytes("\xFB\xFF"));
    EXPECT_TRUE(Base64Utils::Base64DecodeToBinaryVector("Zm9vZ").empty());
    EXPECT_TRUE(Base64Utils::Base64DecodeToBinaryVector("!Zm9v").empty());
    EXPECT_TRUE(Base64Utils::Base64DecodeToBinaryVector("").empty());

    EXPECT_EQ(Base64Utils::Base64UrlDecode("-_8="), "\xFB\xFF");
    EXPECT_EQ(Base64Utils::Base64UrlDecode("+/8="), "\xFB\xFF");
    EXPECT_EQ(Base64Utils::Base64UrlDecode("Zm9vZ"), "");
    EXPECT_EQ(Base64Utils::Base64UrlDecodeToBinaryVector("-_-_"), Bytes("\xFB\xFF\xBF"));
    EXPECT_TRUE(Base64Utils::Base64UrlDecodeToBinaryVector("Z").empty());
}

TEST(Base64UtilsTest, PositionalDecodeAndValidateForwardUnchanged) {
    std::string out;

    EXPECT_EQ(Base64Utils::Base64Decode("Zg==Zm8=", out, 4), 8);
    EXPECT_EQ(out, "fo");
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9v", out, 4), 4);
    EXPECT_EQ(out, "");
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9vZ", out, 0), -1);
    EXPECT_EQ(out, "foo");
    EXPECT_TRUE(Base64Utils::Base64Validate("-_8="));
    EXPECT_FALSE(Base64Utils::Base64Validate("Zg=a"));
}

TEST(Base64UtilsTest, EncodingAnEmptyVectorEndsTheProcess) {
    const std::vector<std::uint8_t> empty;

    EXPECT_DEATH(Base64Utils::Base64EncodeFromBinaryVector(empty), "empty input");
    EXPECT_DEATH(Base64Utils::Base64UrlEncodeFromBinaryVector(empty), "empty input");
}

// Inserts white space (space, tab, CR, LF) at random places, on average one
// character in eight.
std::string WithWhiteSpace(const std::string& text, std::mt19937& random) {
    static const char kSpaces[] = {' ', '\t', '\r', '\n'};
    std::string spaced;
    spaced.reserve(text.size() * 2);
    for (const char c : text) {
        while (random() % 8 == 0) {
            spaced += kSpaces[random() % 4];
        }
        spaced += c;
    }
    if (random() % 2 == 0) {
        spaced += '\n';
    }
    return spaced;
}

TEST(Base64UtilsTest, EncodeThenDecodeGivesTheInputBackForEveryLengthUpTo4096) {
    std::mt19937 random(4096);
    std::vector<std::uint8_t> all(4096);
    for (auto& byte : all) {
        byte = static_cast<std::uint8_t>(random());
    }

    for (std::size_t length = 0; length <= all.size(); ++length) {
        const std::vector<std::uint8_t> bytes(all.begin(), all.begin() + length);
        const std::string asText(bytes.begin(), bytes.end());
        std::string standard;
        std::string urlSafe;
        if (length > 0) {
            standard = Base64Utils::Base64EncodeFromBinaryVector(bytes);
            urlSafe = Base64Utils::Base64UrlEncodeFromBinaryVector(bytes);
        }
        ASSERT_EQ(Base64Utils::Base64Encode(asText), standard) << length;
        ASSERT_EQ(Base64Utils::Base64UrlEncode(asText), urlSafe) << length;
        ASSERT_EQ(standard.size(), (length + 2) / 3 * 4) << length;
        ASSERT_EQ(urlSafe.find_first_of("+/"), std::string::npos) << length;
        ASSERT_TRUE(Base64Utils::Base64Validate(standard)) << length;
        ASSERT_TRUE(Base64Utils::Base64Validate(urlSafe)) << length;

        const std::string spacedStandard = WithWhiteSpace(standard, random);
        const std::string spacedUrlSafe = WithWhiteSpace(urlSafe, random);

        ASSERT_EQ(Base64Utils::Base64DecodeToBinaryVector(spacedStandard), bytes) << length;
        ASSERT_EQ(Base64Utils::Base64UrlDecodeToBinaryVector(spacedUrlSafe), bytes) << length;
        ASSERT_EQ(Base64Utils::Base64Decode(spacedUrlSafe), asText) << length;
        ASSERT_EQ(Base64Utils::Base64UrlDecode(spacedStandard), asText) << length;
        std::string out;
        ASSERT_EQ(Base64Utils::Base64Decode(standard, out, 0),
                  static_cast<std::int64_t>(standard.size()))
            << length;
    }
}

}  // namespace
}  // namespace base64_utils
