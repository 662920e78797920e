#include "platform/UTF8.h"

namespace quorva {

std::optional<CodePoint> CodePointAt(std::string_view text, size_t at) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[at + k]); };
    const unsigned char first = byte(0);
    if (first < 0x80)
        return CodePoint{first, 1};
    size_t extra;
    unsigned char low = 0x80, high = 0xBF; // allowed range of the second byte
    char32_t value;
    if (first >= 0xC2 && first <= 0xDF) {
        extra = 1;
        value = first & 0x1F;
    } else if (first >= 0xE0 && first <= 0xEF) {
        extra = 2;
        value = first & 0x0F;
        if (first == 0xE0)
            low = 0xA0; // overlong below U+0800
        else if (first == 0xED)
            high = 0x9F; // U+D800..U+DFFF are surrogates
    } else if (first >= 0xF0 && first <= 0xF4) {
        extra = 3;
        value = first & 0x07;
        if (first == 0xF0)
            low = 0x90; // overlong below U+10000
        else if (first == 0xF4)
            high = 0x8F; // above U+10FFFF
    } else {
        return std::nullopt; // continuation byte first, C0/C1 overlongs, F5..FF
    }
    if (text.size() - at <= extra || byte(1) < low || byte(1) > high)
        return std::nullopt;
    for (size_t k = 1; k <= extra; ++k) {
        if (byte(k) < 0x80 || byte(k) > 0xBF)
            return std::nullopt;
        value = (value << 6) | (byte(k) & 0x3F);
    }
    return CodePoint{value, extra + 1};
}

bool IsValidUTF8(std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        auto point = CodePointAt(text, at);
        if (!point)
            return false;
        at += point->length;
    }
    return true;
}

} // namespace quorva
