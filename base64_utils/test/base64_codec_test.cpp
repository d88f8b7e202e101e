#include "base64_utils/base64_codec.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "base64_utils/base64_utils.hpp"

namespace base64_utils {
namespace {

TEST(Base64CodecTest, EncodesWithStandardAlphabetAndPadding) {
    const std::pair<std::string, std::string> rows[] = {{"", ""},
                                                        {"f", "Zg=="},
                                                        {"fo", "Zm8="},
                                                        {"foo", "Zm9v"},
                                                        {"foobar", "Zm9vYmFy"},
                                                        {"\xFB\xFF", "+/8="},
                                                        {std::string(3, '\0'), "AAAA"}};
    for (const auto& [bytes, text] : rows) {
        EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<std::uint32_t>(bytes.size())),
                  text);
    }
}

TEST(Base64CodecTest, DecodeTableTakesBothAlphabetsSkipsWhiteSpaceAndStopsAtTheRest) {
    for (int c = 0; c < 256; ++c) {
        const auto sextet = base64_chars.find(static_cast<char>(c));
        const bool space = c == '\t' || c == '\n' || c == '\r' || c == ' ';
        const int expected = c == '-'                      ? 62
                             : c == '_'                    ? 63
                             : sextet != std::string::npos ? static_cast<int>(sextet)
                             : space                       ? 128
                             : c == '='                    ? 129
                                                           : 255;
        EXPECT_EQ(BASE64_TO_BIN_URL_SAFE[c], expected) << c;
    }
}

TEST(Base64CodecTest, DecodeReturnsThePositionAfterTheConsumedTextAndTheBytes) {
    // Text, start position, result, bytes.
    const std::tuple<std::string, std::uint64_t, std::int64_t, std::string> rows[] = {
        {"Zg==", 0, 4, "f"},
        {"Zg", 0, 2, "f"},
        {"Zm8=", 0, 4, "fo"},
        {"Zm9v", 9, 9, ""},
        {"", 0, 0, ""},
        {"\r\n\t Zm 9v\n", 0, 10, "foo"},
        // Stops at "=" or an invalid byte and keeps what came before.
        {"Zm9v!Zm9v", 0, 4, "foo"},
        {"=Zm9v", 0, 0, ""},
        {"Zm9vZg==Zm9v", 0, 8, "foof"},
        // A lone sextet cannot form a byte; the bytes before it stay.
        {"Z", 0, -1, ""},
        {"Zm9vZ=", 0, -1, "foo"},
        // Padding after a partial group: "=" are consumed, white space is not.
        {"Zg===", 0, 4, "f"},
        {"Zg \n==x", 0, 6, "f"},
        {"Zg= =", 0, 3, "f"},
        {"Zg!", 0, 2, "f"},
        // Decoding from a position, mixed alphabets, unchecked low bits.
        {"xxZm9v", 2, 6, "foo"},
        {"+_-/", 0, 4, "\xFB\xFF\xBF"},
        {"Zh", 0, 2, "f"}};
    for (const auto& [text, pos, result, bytes] : rows) {
        SCOPED_TRACE(text);
        std::string out = "previous content";

        EXPECT_EQ(base64_decode(text, out, pos), result);
        EXPECT_EQ(out, bytes);
    }
    std::string text = "Zm9v";
    EXPECT_EQ(base64_decode(text, text, 0), 0) << "decoding into the input clears it first";
}

TEST(Base64CodecTest, ValidateAcceptsPaddedOrUnpaddedTextOfEitherAlphabetWithoutWhiteSpace) {
    const std::string valid[] = {"", "Zg==", "Zm8", "+/-_"};
    const std::string invalid[] = {
        "Z", "Zm9vZ", "Zg=a", "====", "Z===", "Zg=", "Zm9v\n", "Zm9v!A==", std::string("Zm\0v", 4)};

    for (const std::string& text : valid) {
        EXPECT_TRUE(base64_validate(text)) << text;
    }
    for (const std::string& text : invalid) {
        EXPECT_FALSE(base64_validate(text)) << text;
    }
}

TEST(Base64UtilsTest, DecodingALoneSextetGivesAnEmptyResultAndEncodingNothingEndsTheProcess) {
    EXPECT_EQ(Base64Utils::Base64Decode("Zm9vZ"), "");
    EXPECT_TRUE(Base64Utils::Base64DecodeToBinaryVector("Zm9vZ").empty());
    EXPECT_TRUE(Base64Utils::Base64DecodeToBinaryVector("").empty());
    EXPECT_DEATH(Base64Utils::Base64EncodeFromBinaryVector({}), "empty input");
}

TEST(Base64UtilsTest, EncodeThenDecodeGivesTheInputBackForEveryLengthUpTo4096) {
    std::mt19937 random(4096);
    std::string all(4096, '\0');
    std::generate(all.begin(), all.end(), [&] { return static_cast<char>(random()); });

    for (std::size_t length = 1; length <= all.size(); ++length) {
        const std::string text = all.substr(0, length);
        const std::vector<std::uint8_t> bytes(text.begin(), text.end());
        const std::string standard = Base64Utils::Base64EncodeFromBinaryVector(bytes);

        ASSERT_EQ(Base64Utils::Base64Encode(text), standard);
        ASSERT_EQ(standard.size(), (length + 2) / 3 * 4);
        ASSERT_TRUE(Base64Utils::Base64Validate(standard));
        ASSERT_EQ(Base64Utils::Base64DecodeToBinaryVector(standard), bytes);
        ASSERT_EQ(Base64Utils::Base64Decode(standard), text) << length;
    }
}

}  // namespace
}  // namespace base64_utils
