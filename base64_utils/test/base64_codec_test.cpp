#include "base64_utils/base64_codec.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace base64_utils {
namespace {

std::string Encode(const std::string& bytes) {
    return base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                         static_cast<std::uint32_t>(bytes.size()));
}

using EncodeCase = std::tuple<std::string, std::string>;
class Base64EncodeTest : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(Base64EncodeTest, EncodesWithStandardAlphabetAndPadding) {
    const auto& [bytes, text] = GetParam();

    EXPECT_EQ(Encode(bytes), text);
}

INSTANTIATE_TEST_SUITE_P(
    Vectors, Base64EncodeTest,
    ::testing::Values(EncodeCase{"", ""}, EncodeCase{"f", "Zg=="}, EncodeCase{"fo", "Zm8="},
                      EncodeCase{"foo", "Zm9v"}, EncodeCase{"foob", "Zm9vYg=="},
                      EncodeCase{"fooba", "Zm9vYmE="}, EncodeCase{"foobar", "Zm9vYmFy"},
                      EncodeCase{"\xFB\xFF", "+/8="}, EncodeCase{std::string(3, '\0'), "AAAA"},
                      EncodeCase{"\xFF\xFF\xFF\xFF", "/////w=="}));

using DecodeCase = std::tuple<std::string, std::uint64_t, std::int64_t, std::string>;
class Base64DecodeTest : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(Base64DecodeTest, ReturnsPositionAfterConsumedTextAndTheBytes) {
    const auto& [text, pos, expectedResult, expectedBytes] = GetParam();
    std::string out = "previous content";

    const std::int64_t result = base64_decode(text, out, pos);

    EXPECT_EQ(result, expectedResult);
    EXPECT_EQ(out, expectedBytes);
}

INSTANTIATE_TEST_SUITE_P(
    Vectors, Base64DecodeTest,
    ::testing::Values(DecodeCase{"Zg==", 0, 4, "f"}, DecodeCase{"Zg=", 0, 3, "f"},
                      DecodeCase{"Zg", 0, 2, "f"}, DecodeCase{"Zm8=", 0, 4, "fo"},
                      DecodeCase{"Zm8", 0, 3, "fo"}, DecodeCase{"Zm9v", 4, 4, ""},
                      DecodeCase{"Zm9v", 9, 9, ""}, DecodeCase{"", 0, 0, ""},
                      DecodeCase{"Zm9v", 0, 4, "foo"}, DecodeCase{"Zm9v\n", 0, 5, "foo"},
                      DecodeCase{"Zm 9v", 0, 5, "foo"}, DecodeCase{"\r\n\t Zm9v", 0, 8, "foo"},
                      // Stops at "=" or an invalid byte and keeps what came before.
                      DecodeCase{"Zm9v!Zm9v", 0, 4, "foo"}, DecodeCase{"Zm9v=Zm9v", 0, 4, "foo"},
                      DecodeCase{"=Zm9v", 0, 0, ""}, DecodeCase{"Zm9vZg==Zm9v", 0, 8, "foof"},
                      // A lone sextet cannot form a byte; the bytes before it stay.
                      DecodeCase{"Z", 0, -1, ""}, DecodeCase{"Zm9vZ", 0, -1, "foo"},
                      DecodeCase{"Zm9vZ=", 0, -1, "foo"},
                      // Padding after a partial group: "=" are consumed, white space is not.
                      DecodeCase{"Zg===", 0, 4, "f"}, DecodeCase{"Zg \n==x", 0, 6, "f"},
                      DecodeCase{"Zg= =", 0, 3, "f"}, DecodeCase{"Zm8==", 0, 4, "fo"},
                      DecodeCase{"Zg!", 0, 2, "f"},
                      // Decoding from a position, mixed alphabets, unchecked low bits.
                      DecodeCase{"xxZm9v", 2, 6, "foo"}, DecodeCase{"-_8=", 0, 4, "\xFB\xFF"},
                      DecodeCase{"+_-/", 0, 4, "\xFB\xFF\xBF"}, DecodeCase{"Zh", 0, 2, "f"}));

TEST(Base64CodecTest, DecodeIntoTheInputStringItselfClearsItFirst) {
    std::string text = "Zm9v";

    const std::int64_t result = base64_decode(text, text, 0);

    EXPECT_EQ(result, 0);
    EXPECT_EQ(text, "");
}

using ValidateCase = std::tuple<std::string, bool>;
class Base64ValidateTest : public ::testing::TestWithParam<ValidateCase> {};

TEST_P(Base64ValidateTest, AcceptsPaddedOrUnpaddedTextOfEitherAlphabet) {
    const auto& [text, valid] = GetParam();

    EXPECT_EQ(base64_validate(text), valid);
}

INSTANTIATE_TEST_SUITE_P(
    Vectors, Base64ValidateTest,
    ::testing::Values(ValidateCase{"", true}, ValidateCase{"Zg==", true}, ValidateCase{"Zg", true},
                      ValidateCase{"-_8=", true}, ValidateCase{"Zm8", true},
                      ValidateCase{"Zm9v", true}, ValidateCase{"+/-_", true},
                      ValidateCase{"Z", false}, ValidateCase{"Zm9vZ", false},
                      ValidateCase{"Zg=a", false}, ValidateCase{"====", false},
                      ValidateCase{"Z===", false}, ValidateCase{"Zm9v\n", false},
                      ValidateCase{"Zm 9", false}, ValidateCase{"Zg=", false},
                      ValidateCase{"Zm9v!A==", false}, ValidateCase{"Zm.v", false},
                      ValidateCase{std::string("Zm\0v", 4), false}));

}  // namespace
}  // namespace base64_utils
