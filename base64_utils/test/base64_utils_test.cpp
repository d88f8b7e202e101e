#include "base64_utils/base64_utils.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace base64_utils {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(Base64UtilsTest, DecodingGivesAnEmptyResultWhereTheCodecLeftALoneSextet) {
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9v!Zm9v"), "foo");
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9vZ"), "");
    EXPECT_EQ(Base64Utils::Base64UrlDecode("+/8="), "\xFB\xFF");
    EXPECT_EQ(Base64Utils::Base64UrlDecode("Zm9vZ"), "");
    EXPECT_TRUE(Base64Utils::Base64DecodeToBinaryVector("Zm9vZ").empty());
    EXPECT_TRUE(Base64Utils::Base64UrlDecodeToBinaryVector("Z").empty());
    std::string out;
    EXPECT_EQ(Base64Utils::Base64Decode("Zg==Zm8=", out, 4), 8);
    EXPECT_EQ(out, "fo");
}

TEST(Base64UtilsTest, EncodingAnEmptyVectorEndsTheProcess) {
    EXPECT_DEATH(Base64Utils::Base64EncodeFromBinaryVector({}), "empty input");
    EXPECT_DEATH(Base64Utils::Base64UrlEncodeFromBinaryVector({}), "empty input");
}

// Every entry point against every other, for every length up to 4096 bytes,
// the text decoded with white space at random places.
TEST(Base64UtilsTest, EncodeThenDecodeGivesTheInputBackForEveryLengthUpTo4096) {
    std::mt19937 random(4096);
    Bytes all(4096);
    for (auto& byte : all) {
        byte = static_cast<std::uint8_t>(random());
    }
    const auto withWhiteSpace = [&](const std::string& text) {
        std::string spaced;
        for (const char c : text) {
            while (random() % 8 == 0) {
                spaced += " \t\r\n"[random() % 4];
            }
            spaced += c;
        }
        return spaced;
    };

    for (std::size_t length = 0; length <= all.size(); ++length) {
        const Bytes bytes(all.begin(), all.begin() + length);
        const std::string asText(bytes.begin(), bytes.end());
        const std::string standard = Base64Utils::Base64Encode(asText);
        const std::string urlSafe = Base64Utils::Base64UrlEncode(asText);
        if (length > 0) {
            ASSERT_EQ(Base64Utils::Base64EncodeFromBinaryVector(bytes), standard) << length;
            ASSERT_EQ(Base64Utils::Base64UrlEncodeFromBinaryVector(bytes), urlSafe) << length;
        }
        ASSERT_EQ(standard.size(), (length + 2) / 3 * 4) << length;
        ASSERT_EQ(urlSafe.find_first_of("+/"), std::string::npos) << length;
        ASSERT_TRUE(Base64Utils::Base64Validate(standard)) << length;
        ASSERT_TRUE(Base64Utils::Base64Validate(urlSafe)) << length;

        ASSERT_EQ(Base64Utils::Base64DecodeToBinaryVector(withWhiteSpace(standard)), bytes);
        ASSERT_EQ(Base64Utils::Base64UrlDecodeToBinaryVector(withWhiteSpace(urlSafe)), bytes);
        ASSERT_EQ(Base64Utils::Base64Decode(withWhiteSpace(urlSafe)), asText) << length;
        ASSERT_EQ(Base64Utils::Base64UrlDecode(withWhiteSpace(standard)), asText) << length;
    }
    EXPECT_EQ(Base64Utils::Base64UrlEncode("\xFB\xFF\xBF"), "-_-_");
}

}  // namespace
}  // namespace base64_utils
