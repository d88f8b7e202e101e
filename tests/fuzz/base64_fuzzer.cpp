// Base64 texts as a downloaded container might hold them. Every decode entry
// point must give exactly what a plain byte-at-a-time decoder gives (the real
// one takes wide shortcuts), validation must follow its rules, and any input
// encoded must decode back to itself.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base64_utils/base64_codec.hpp"
#include "base64_utils/base64_utils.hpp"
#include "fuzz_check.hpp"

namespace {

using base64_utils::Base64Utils;
using fuzz::Require;

constexpr std::uint8_t kSkip = 128;
constexpr std::uint8_t kStop = 255;

// Built here from the alphabets rather than taken from the codec, so that a
// wrong entry in the codec's table shows.
std::array<std::uint8_t, 256> MakeTable() {
    std::array<std::uint8_t, 256> table{};
    table.fill(kStop);
    const std::string_view standard =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t i = 0; i < standard.size(); ++i) {
        table[static_cast<unsigned char>(standard[i])] = static_cast<std::uint8_t>(i);
    }
    table['-'] = 62;
    table['_'] = 63;
    for (const char c : {'\t', '\n', '\r', ' '}) {
        table[static_cast<unsigned char>(c)] = kSkip;
    }
    return table;
}

const std::array<std::uint8_t, 256> kTable = MakeTable();

char Byte(unsigned value) {
    return static_cast<char>(value & 0xFFU);
}

std::int64_t ReferenceDecode(const std::string& in, std::string& out, std::uint64_t pos) {
    out.clear();
    if (pos >= in.size()) {
        return static_cast<std::int64_t>(pos);
    }
    unsigned s[4] = {0, 0, 0, 0};
    int n = 0;
    for (; pos < in.size(); ++pos) {
        const unsigned v = kTable[static_cast<unsigned char>(in[pos])];
        if (v == kSkip) {
            continue;
        }
        if (v == kStop) {
            break;
        }
        s[n++] = v;
        if (n == 4) {
            out += Byte((s[0] << 2) + ((s[1] >> 4) & 3));
            out += Byte((s[1] << 4) + ((s[2] >> 2) & 15));
            out += Byte((s[2] << 6) + s[3]);
            n = 0;
        }
    }
    if (n == 1) {
        return -1;
    }
    if (n >= 2) {
        out += Byte((s[0] << 2) + ((s[1] >> 4) & 3));
    }
    if (n == 3) {
        out += Byte((s[1] << 4) + ((s[2] >> 2) & 15));
    }
    // At most one "=" after three sextets, at most two after two.
    for (int padding = 4 - n; n >= 2 && padding > 0 && pos < in.size() && in[pos] == '=';
         --padding) {
        ++pos;
    }
    return static_cast<std::int64_t>(pos);
}

bool ReferenceValidate(const std::string& text) {
    const std::string_view accepted =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_-+/";
    std::string_view rest = text;
    if (text.size() % 4 == 1) {
        return false;
    }
    if (text.size() % 4 == 0) {
        for (int i = 0; i < 2 && !rest.empty() && rest.back() == '='; ++i) {
            rest.remove_suffix(1);
        }
    }
    return rest.find_first_not_of(accepted) == std::string_view::npos;
}

std::string FromUrlAlphabet(std::string text) {
    for (auto& c : text) {
        c = c == '-' ? '+' : (c == '_' ? '/' : c);
    }
    return text;
}

std::string ToText(const std::vector<std::uint8_t>& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

void CheckDecoding(const std::string& text) {
    for (const std::uint64_t pos :
         {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{text.size() / 2},
          std::uint64_t{text.size()}, std::uint64_t{text.size() + 1}}) {
        std::string expected;
        const std::int64_t expectedEnd = ReferenceDecode(text, expected, pos);
        std::string out = "left over from before";
        const std::int64_t end = base64_utils::base64_decode(text, out, pos);
        Require(end == expectedEnd, "base64_decode stops where the plain decoder stops");
        Require(end < 0 || out == expected, "base64_decode gives the plain decoder's bytes");
        std::string viaUtils = "left over from before";
        Require(Base64Utils::Base64Decode(text, viaUtils, pos) == end && viaUtils == out,
                "Base64Decode with a position forwards to base64_decode");
    }

    std::string decoded;
    if (ReferenceDecode(text, decoded, 0) <= 0) {
        decoded.clear();
    }
    Require(Base64Utils::Base64Decode(text) == decoded, "Base64Decode");
    Require(ToText(Base64Utils::Base64DecodeToBinaryVector(text)) == decoded,
            "Base64DecodeToBinaryVector gives the bytes Base64Decode gives");
    // Both alphabets are decoded alike, so the URL-safe forms give the same bytes.
    Require(Base64Utils::Base64UrlDecode(text) == decoded, "Base64UrlDecode");
    Require(ToText(Base64Utils::Base64UrlDecodeToBinaryVector(text)) == decoded,
            "Base64UrlDecodeToBinaryVector");
    Require(Base64Utils::Base64Decode(FromUrlAlphabet(text)) == decoded,
            "the alphabet does not change the bytes");

    Require(Base64Utils::Base64Validate(text) == ReferenceValidate(text), "Base64Validate");
}

void CheckRoundTrip(const std::string& bytes) {
    const std::string encoded = Base64Utils::Base64Encode(bytes);
    Require(encoded.size() == (bytes.size() + 2) / 3 * 4, "four characters per three bytes");
    Require(encoded.find_first_not_of(
                "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") ==
                std::string::npos,
            "the standard alphabet and padding only");
    Require(Base64Utils::Base64Validate(encoded), "an encoding is valid");
    std::string decoded;
    Require(ReferenceDecode(encoded, decoded, 0) == static_cast<std::int64_t>(encoded.size()) &&
                decoded == bytes,
            "the encoding decodes back, padding and all");
    Require(Base64Utils::Base64Decode(encoded) == bytes, "Base64Decode reverses Base64Encode");

    const std::string urlEncoded = Base64Utils::Base64UrlEncode(bytes);
    Require(urlEncoded.find_first_of("+/") == std::string::npos, "no \"+\" or \"/\" when URL-safe");
    Require(FromUrlAlphabet(urlEncoded) == encoded, "URL-safe differs only in two characters");
    Require(Base64Utils::Base64UrlDecode(urlEncoded) == bytes,
            "Base64UrlDecode reverses Base64UrlEncode");
    if (!bytes.empty()) {
        const std::vector<std::uint8_t> vector(bytes.begin(), bytes.end());
        Require(Base64Utils::Base64EncodeFromBinaryVector(vector) == encoded,
                "Base64EncodeFromBinaryVector");
        Require(Base64Utils::Base64UrlEncodeFromBinaryVector(vector) == urlEncoded,
                "Base64UrlEncodeFromBinaryVector");
        Require(Base64Utils::Base64DecodeToBinaryVector(encoded) == vector,
                "Base64DecodeToBinaryVector reverses Base64EncodeFromBinaryVector");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    CheckDecoding(input);
    CheckRoundTrip(input);
    return 0;
}
