#include "base64_utils/base64_utils.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "base64_decoder.hpp"

namespace base64_utils {
namespace {

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// base64_encode takes a 32-bit length; inputs of 4 GiB and more are not supported.
std::uint32_t Narrowed(std::size_t size) {
    return static_cast<std::uint32_t>(size);
}

const unsigned char* FirstElement(const std::vector<std::uint8_t>& bytes, const char* caller) {
    if (bytes.empty()) {
        std::fprintf(stderr, "%s: empty input vector\n", caller);
        std::abort();
    }
    return bytes.data();
}

void ToUrlAlphabet(std::string& text) {
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
}

std::string FromUrlAlphabet(std::string text) {
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    return text;
}

}  // namespace

std::string Base64Utils::Base64Encode(const std::string& text) {
    return base64_encode(Bytes(text), Narrowed(text.size()));
}

std::string Base64Utils::Base64Decode(const std::string& text) {
    std::string out;
    if (base64_decode(text, out, 0) <= 0) {
        out.clear();
    }
    return out;
}

std::int64_t Base64Utils::Base64Decode(const std::string& text, std::string& out,
                                       std::uint64_t pos) {
    return base64_decode(text, out, pos);
}

std::string Base64Utils::Base64EncodeFromBinaryVector(const std::vector<std::uint8_t>& bytes) {
    return base64_encode(FirstElement(bytes, "Base64EncodeFromBinaryVector"),
                         Narrowed(bytes.size()));
}

std::vector<std::uint8_t> Base64Utils::Base64DecodeToBinaryVector(const std::string& text) {
    // Decodes straight into the vector: the same bytes as Base64Decode without
    // the intermediate string, which matters for megabyte-sized containers.
    std::vector<std::uint8_t> out;
    if (text.empty()) {
        return out;
    }
    out.resize(detail::DecodeCapacity(text.size(), 0));
    std::size_t produced = 0;
    if (detail::DecodeInto(Bytes(text), text.size(), 0, out.data(), produced) <= 0) {
        produced = 0;
    }
    out.resize(produced);
    return out;
}

bool Base64Utils::Base64Validate(const std::string& text) {
    return base64_validate(text);
}

std::string Base64Utils::Base64UrlEncode(const std::string& text) {
    std::string encoded = Base64Encode(text);
    ToUrlAlphabet(encoded);
    return encoded;
}

std::string Base64Utils::Base64UrlDecode(const std::string& text) {
    return Base64Decode(FromUrlAlphabet(text));
}

std::string Base64Utils::Base64UrlEncodeFromBinaryVector(const std::vector<std::uint8_t>& bytes) {
    std::string encoded = base64_encode(FirstElement(bytes, "Base64UrlEncodeFromBinaryVector"),
                                        Narrowed(bytes.size()));
    ToUrlAlphabet(encoded);
    return encoded;
}

std::vector<std::uint8_t> Base64Utils::Base64UrlDecodeToBinaryVector(const std::string& text) {
    return Base64DecodeToBinaryVector(FromUrlAlphabet(text));
}

}  // namespace base64_utils
