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
    EXPECT_TRUE(Base64Utils::Base64DecodeToBinaryVector("").empty());
    EXPECT_TRUE(Base64Utils::Base64UrlDecodeToBinaryVector("Z").empty());
    std::string out;
    EXPECT_EQ(Base64Utils::Base64Decode("Zg==Zm8=", out, 4), 8);
    EXPECT_EQ(out, "fo");
}

TEST(Base64UtilsTest, EncodingAnEmptyVectorEndsTheProcess) {
    EXPECT_DEATH(Base64Utils::Base64EncodeFromBinaryVector({}), "empty input");
    EXPECT_DEATH(Base64Utils::Base64UrlEncodeFromBinaryVector({}), "empty input");
}

// Every length up to 4096 bytes, decoded with white space at random places.
TEST(Base64UtilsTest, EncodeThenDecodeGivesTheInputBackForEveryLengthUpTo4096) {
    std::mt19937 random(4096);
    std::string all(4096, '\0');
    for (char& byte : all) {
        byte = static_cast<char>(random());
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

    for (std::size_t length = 1; length <= all.size(); ++length) {
        const std::string text = all.substr(0, length);
        const Bytes bytes(text.begin(), text.end());
        const std::string standard = Base64Utils::Base64EncodeFromBinaryVector(bytes);
        const std::string urlSafe = Base64Utils::Base64UrlEncode(text);

        ASSERT_EQ(Base64Utils::Base64Encode(text), standard);
        ASSERT_EQ(standard.size(), (length + 2) / 3 * 4);
        ASSERT_EQ(urlSafe.find_first_of("+/"), std::string::npos);
        ASSERT_TRUE(Base64Utils::Base64Validate(urlSafe));
        ASSERT_EQ(Base64Utils::Base64DecodeToBinaryVector(withWhiteSpace(standard)), bytes);
        ASSERT_EQ(Base64Utils::Base64UrlDecode(withWhiteSpace(urlSafe)), text) << length;
    }
    EXPECT_EQ(Base64Utils::Base64UrlEncodeFromBinaryVector({0xFB, 0xFF, 0xBF}), "-_-_");
}

}  // namespace
}  // namespace base64_utils
