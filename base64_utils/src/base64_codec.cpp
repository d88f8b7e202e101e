#include "base64_utils/base64_codec.hpp"

#include <cstring>

#include "base64_decoder.hpp"

namespace {

constexpr char kStandardAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Two output characters per 12 input bits halve the lookups of the encoder.
struct PairTable {
    char pairs[4096][2];
};

constexpr PairTable MakePairTable() {
    PairTable table{};
    for (int i = 0; i < 4096; ++i) {
        table.pairs[i][0] = kStandardAlphabet[i >> 6];
        table.pairs[i][1] = kStandardAlphabet[i & 0x3F];
    }
    return table;
}

constexpr PairTable kPairs = MakePairTable();

// The decoder's fast path looks four characters up at once: each table holds the
// sextet already shifted to its place in the three little-endian output bytes,
// and every byte that is not an alphabet character maps to a value with bit 24
// set, so one test of the OR of four lookups tells whether the group is plain.
constexpr std::uint32_t kNotPlain = 0x01FFFFFF;

struct GroupTables {
    std::uint32_t slot[4][256];
};

constexpr GroupTables MakeGroupTables() {
    GroupTables tables{};
    for (int c = 0; c < 256; ++c) {
        const std::uint32_t v = base64_utils::BASE64_TO_BIN_URL_SAFE[c];
        if (v >= 64) {
            for (auto& slot : tables.slot) {
                slot[c] = kNotPlain;
            }
            continue;
        }
        tables.slot[0][c] = v << 2;
        tables.slot[1][c] = (v >> 4) | ((v & 0x0F) << 12);
        tables.slot[2][c] = ((v >> 2) << 8) | ((v & 0x03) << 22);
        tables.slot[3][c] = v << 16;
    }
    return tables;
}

constexpr GroupTables kGroups = MakeGroupTables();

inline std::uint32_t LookUpGroup(const unsigned char* p) {
    return kGroups.slot[0][p[0]] | kGroups.slot[1][p[1]] | kGroups.slot[2][p[2]] |
           kGroups.slot[3][p[3]];
}

// Writes four bytes of which the first three are the group; the caller's buffer
// has room for the fourth.
inline void StoreGroup(unsigned char* out, std::uint32_t group) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::memcpy(out, &group, sizeof group);
#else
    out[0] = static_cast<unsigned char>(group);
    out[1] = static_cast<unsigned char>(group >> 8);
    out[2] = static_cast<unsigned char>(group >> 16);
#endif
}

}  // namespace

const std::string base64_chars = kStandardAlphabet;

std::string base64_encode(const unsigned char* bytes, std::uint32_t length) {
    std::string result;
    if (length == 0) {
        return result;
    }
    result.resize((static_cast<std::size_t>(length) + 2) / 3 * 4);
    char* out = result.data();
    const unsigned char* in = bytes;
    const unsigned char* const fullEnd = bytes + length / 3 * 3;
    for (; in != fullEnd; in += 3, out += 4) {
        const std::uint32_t group =
            (std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2];
        std::memcpy(out, kPairs.pairs[group >> 12], 2);
        std::memcpy(out + 2, kPairs.pairs[group & 0xFFF], 2);
    }
    const std::uint32_t remaining = length % 3;
    if (remaining != 0) {
        const std::uint32_t b0 = in[0];
        const std::uint32_t b1 = remaining == 2 ? in[1] : 0;
        out[0] = kStandardAlphabet[b0 >> 2];
        out[1] = kStandardAlphabet[((b0 & 0x03) << 4) | (b1 >> 4)];
        out[2] = remaining == 2 ? kStandardAlphabet[(b1 & 0x0F) << 2] : '=';
        out[3] = '=';
    }
    return result;
}

namespace base64_utils {

const std::string base64_chars = kStandardAlphabet;

namespace detail {

std::int64_t DecodeInto(const unsigned char* in, std::size_t size, std::size_t pos,
                        unsigned char* out, std::size_t& produced) {
    const unsigned char* p = in + pos;
    const unsigned char* const end = in + size;
    unsigned char* o = out;
    std::uint32_t s[4] = {0, 0, 0, 0};
    unsigned n = 0;
    for (;;) {
        if (n == 0) {
            // Runs of plain alphabet characters, two groups per step, then one.
            while (end - p >= 8) {
                const std::uint32_t first = LookUpGroup(p);
                const std::uint32_t second = LookUpGroup(p + 4);
                if ((first | second) > 0x00FFFFFF) {
                    break;
                }
                StoreGroup(o, first);
                StoreGroup(o + 3, second);
                o += 6;
                p += 8;
            }
            while (end - p >= 4) {
                const std::uint32_t group = LookUpGroup(p);
                if (group > 0x00FFFFFF) {
                    break;
                }
                StoreGroup(o, group);
                o += 3;
                p += 4;
            }
        }
        // Everything else one byte at a time, back to the fast path after each group.
        if (p == end) {
            break;
        }
        const std::uint8_t v = BASE64_TO_BIN_URL_SAFE[*p];
        if (v < 64) {
            s[n++] = v;
            if (n == 4) {
                o[0] = static_cast<unsigned char>((s[0] << 2) + ((s[1] >> 4) & 3));
                o[1] = static_cast<unsigned char>((s[1] << 4) + ((s[2] >> 2) & 15));
                o[2] = static_cast<unsigned char>((s[2] << 6) + s[3]);
                o += 3;
                n = 0;
            }
        } else if (v != kWhiteSpace) {
            break;
        }
        ++p;
    }

    std::size_t at = static_cast<std::size_t>(p - in);
    std::int64_t result = static_cast<std::int64_t>(at);
    switch (n) {
        case 3:
            o[0] = static_cast<unsigned char>((s[0] << 2) + ((s[1] >> 4) & 3));
            o[1] = static_cast<unsigned char>((s[1] << 4) + ((s[2] >> 2) & 15));
            o += 2;
            if (at < size && in[at] == '=') {
                ++at;
            }
            result = static_cast<std::int64_t>(at);
            break;
        case 2:
            o[0] = static_cast<unsigned char>((s[0] << 2) + ((s[1] >> 4) & 3));
            o += 1;
            if (at < size) {
                if (in[at] == '=') {
                    ++at;
                }
                if (at < size && in[at] == '=') {
                    ++at;
                }
            }
            result = static_cast<std::int64_t>(at);
            break;
        case 1:
            result = -1;
            break;
        default:
            break;
    }
    produced = static_cast<std::size_t>(o - out);
    return result;
}

}  // namespace detail

std::int64_t base64_decode(const std::string& in, std::string& out, std::uint64_t pos) {
    out.clear();
    if (pos >= in.size()) {
        return static_cast<std::int64_t>(pos);
    }
    const auto start = static_cast<std::size_t>(pos);
    out.resize(detail::DecodeCapacity(in.size(), start));
    std::size_t produced = 0;
    const std::int64_t result =
        detail::DecodeInto(reinterpret_cast<const unsigned char*>(in.data()), in.size(), start,
                           reinterpret_cast<unsigned char*>(out.data()), produced);
    out.resize(produced);
    return result;
}

bool base64_validate(const std::string& text) {
    static constexpr auto kAccepted = [] {
        std::array<bool, 256> accepted{};
        for (const char c : kValidationAlphabet) {
            accepted[static_cast<unsigned char>(c)] = true;
        }
        return accepted;
    }();

    std::size_t length = text.size();
    switch (length % 4) {
        case 1:
            return false;
        case 0:
            // Up to two trailing "=" of a padded text.
            for (int i = 0; i < 2 && length > 0 && text[length - 1] == '='; ++i) {
                --length;
            }
            break;
        default:
            break;
    }
    for (std::size_t i = 0; i < length; ++i) {
        if (!kAccepted[static_cast<unsigned char>(text[i])]) {
            return false;
        }
    }
    return true;
}

}  // namespace base64_utils
