#include "base64_utils/base64_codec.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>

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

}  // namespace
}  // namespace base64_utils
