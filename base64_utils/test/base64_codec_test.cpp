#include "base64_utils/base64_codec.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace base64_utils {
namespace {

// The decoding algorithm written down as plainly as possible, one byte at a
// time; the optimised decoder must agree with it on every input.
std::int64_t ReferenceDecode(const std::string& in, std::string& out, std::uint64_t pos) {
    out.clear();
    if (pos >= in.size()) {
        return static_cast<std::int64_t>(pos);
    }
    unsigned s[4] = {0, 0, 0, 0};
    int n = 0;
    for (; pos < in.size(); ++pos) {
        const unsigned v = BASE64_TO_BIN_URL_SAFE[static_cast<unsigned char>(in[pos])];
        if (v < 64) {
            s[n++] = v;
            if (n == 4) {
                out += static_cast<char>((s[0] << 2) + ((s[1] >> 4) & 3));
                out += static_cast<char>((s[1] << 4) + ((s[2] >> 2) & 15));
                out += static_cast<char>((s[2] << 6) + s[3]);
                n = 0;
            }
        } else if (v != 128) {
            break;
        }
    }
    if (n == 3) {
        out += static_cast<char>((s[0] << 2) + ((s[1] >> 4) & 3));
        out += static_cast<char>((s[1] << 4) + ((s[2] >> 2) & 15));
        if (pos < in.size() && in[pos] == '=') {
            ++pos;
        }
    } else if (n == 2) {
        out += static_cast<char>((s[0] << 2) + ((s[1] >> 4) & 3));
        if (pos < in.size()) {
            if (in[pos] == '=') {
                ++pos;
                if (pos == in.size()) {
                    return static_cast<std::int64_t>(pos);
                }
            }
            if (in[pos] == '=') {
                ++pos;
            }
        }
    } else if (n == 1) {
        return -1;
    }
    return static_cast<std::int64_t>(pos);
}

void ExpectSameAsReference(const std::string& in, std::uint64_t pos) {
    std::string expected;
    std::string actual = "stale";
    const std::int64_t expectedResult = ReferenceDecode(in, expected, pos);

    const std::int64_t result = base64_decode(in, actual, pos);

    ASSERT_EQ(result, expectedResult) << "input \"" << in << "\" from " << pos;
    ASSERT_EQ(actual, expected) << "input \"" << in << "\" from " << pos;
}

std::string Encode(const std::string& bytes) {
    return base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                         static_cast<std::uint32_t>(bytes.size()));
}

TEST(Base64CodecTest, DecodeTableMapsBothAlphabetsWhiteSpacePaddingAndNothingElse) {
    int sextets = 0;
    int invalid = 0;
    for (int c = 0; c < 256; ++c) {
        const auto v = BASE64_TO_BIN_URL_SAFE[c];
        if (v < 64) {
            ++sextets;
        } else if (v == 255) {
            ++invalid;
        }
    }
    for (std::size_t i = 0; i < 64; ++i) {
        EXPECT_EQ(BASE64_TO_BIN_URL_SAFE[static_cast<unsigned char>(base64_chars[i])], i);
    }

    EXPECT_EQ(sextets, 66);
    EXPECT_EQ(invalid, 185);
    EXPECT_EQ(BASE64_TO_BIN_URL_SAFE['-'], 62);
    EXPECT_EQ(BASE64_TO_BIN_URL_SAFE['_'], 63);
    for (const unsigned char c : {'\t', '\n', '\r', ' '}) {
        EXPECT_EQ(BASE64_TO_BIN_URL_SAFE[c], 128) << int{c};
    }
    EXPECT_EQ(BASE64_TO_BIN_URL_SAFE['='], 129);
    EXPECT_EQ(::base64_chars, base64_chars);
    EXPECT_EQ(base64_chars, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
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

TEST(Base64CodecTest, EncodeCoversEveryByteValueInEveryPositionOfAGroup) {
    std::string bytes;
    for (int i = 0; i < 3 * 256; ++i) {
        bytes += static_cast<char>((i * 7 + i / 256) & 0xFF);
    }

    const std::string text = Encode(bytes);

    std::string decoded;
    ASSERT_EQ(ReferenceDecode(text, decoded, 0), static_cast<std::int64_t>(text.size()));
    EXPECT_EQ(decoded, bytes);
}

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

TEST(Base64CodecTest, FastDecoderAgreesWithReferenceOnEveryShortInputOverHardCharacters) {
    // Plain characters of both alphabets, white space, padding and invalid
    // bytes at every position of inputs up to six bytes long.
    const std::string characters = {'A', 'z', '-', '/', ' ', '\n', '=', '!', '\x80'};
    std::string in;
    for (std::size_t length = 0; length <= 6; ++length) {
        std::vector<std::size_t> digits(length, 0);
        for (;;) {
            in.clear();
            for (const std::size_t d : digits) {
                in += characters[d];
            }
            ExpectSameAsReference(in, 0);
            ExpectSameAsReference(in, 1);
            std::size_t i = 0;
            while (i < length && ++digits[i] == characters.size()) {
                digits[i++] = 0;
            }
            if (i == length) {
                break;
            }
        }
    }
}

TEST(Base64CodecTest, FastDecoderAgreesWithReferenceWhenEveryByteValueInterruptsPlainText) {
    const std::string plain = Encode(std::string(60, '\x5A'));
    for (int c = 0; c < 256; ++c) {
        for (std::size_t at = 0; at <= 17; ++at) {
            std::string in = plain;
            in.insert(at, 1, static_cast<char>(c));
            ExpectSameAsReference(in, 0);
            in.insert(at + 9, 1, static_cast<char>(c));
            ExpectSameAsReference(in, 0);
            ExpectSameAsReference(in, at % 5);
        }
    }
}

TEST(Base64CodecTest, FastDecoderAgreesWithReferenceOnRandomInputs) {
    std::mt19937 random(20240611);
    // Mostly plain characters so that long runs exercise the fast path.
    const std::string rare = " \t\r\n=-_!\x00\xFF.";
    std::uniform_int_distribution<int> kind(0, 99);
    std::uniform_int_distribution<std::size_t> plainIndex(0, 63);
    std::uniform_int_distribution<std::size_t> rareIndex(0, rare.size() - 1);
    std::uniform_int_distribution<std::size_t> lengths(0, 300);
    for (int round = 0; round < 20000; ++round) {
        const int rarePercent = round % 4 == 0 ? 30 : 2;
        std::string in(lengths(random), '\0');
        for (char& c : in) {
            c = kind(random) < rarePercent ? rare[rareIndex(random)]
                                           : base64_chars[plainIndex(random)];
        }
        const std::uint64_t pos = in.empty() ? 0 : random() % (in.size() + 2);
        ExpectSameAsReference(in, pos);
        if (HasFatalFailure()) {
            return;
        }
    }
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
