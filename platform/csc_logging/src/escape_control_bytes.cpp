#include "escape_control_bytes.hpp"

#include <algorithm>

namespace csc_logging {
namespace {

bool NeedsEscape(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f || c == '\\';
}

}  // namespace

void EscapeControlBytes(std::string& text) {
    // Nearly every record is clean: it is neither copied nor reallocated.
    const auto first = std::find_if(text.begin(), text.end(), NeedsEscape);
    if (first == text.end()) {
        return;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string escaped(text.begin(), first);
    escaped.reserve(text.size() + 16);
    for (auto it = first; it != text.end(); ++it) {
        const char c = *it;
        if (!NeedsEscape(c)) {
            escaped.push_back(c);
            continue;
        }
        escaped.push_back('\\');
        switch (c) {
            case '\r':
                escaped.push_back('r');
                break;
            case '\n':
                escaped.push_back('n');
                break;
            case '\t':
                escaped.push_back('t');
                break;
            case '\\':
                escaped.push_back('\\');
                break;
            default: {
                const auto byte = static_cast<unsigned char>(c);
                escaped.push_back('x');
                escaped.push_back(kHex[byte >> 4]);
                escaped.push_back(kHex[byte & 0x0f]);
            }
        }
    }
    text = std::move(escaped);
}

}  // namespace csc_logging
