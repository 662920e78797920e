#include "remote/UTF8.h"

namespace quorva {

bool IsValidUTF8(const uint8_t* s, size_t n) {
    size_t i = 0;
    while (i < n) {
        uint8_t b = s[i];
        if (b < 0x80) {
            i += 1;
            continue;
        }
        size_t extra;
        uint8_t low = 0x80, high = 0xBF; // allowed range of the second byte
        if (b >= 0xC2 && b <= 0xDF) {
            extra = 1;
        } else if (b >= 0xE0 && b <= 0xEF) {
            extra = 2;
            if (b == 0xE0)
                low = 0xA0; // overlong below U+0800
            else if (b == 0xED)
                high = 0x9F; // U+D800..U+DFFF are surrogates
        } else if (b >= 0xF0 && b <= 0xF4) {
            extra = 3;
            if (b == 0xF0)
                low = 0x90; // overlong below U+10000
            else if (b == 0xF4)
                high = 0x8F; // above U+10FFFF
        } else {
            return false; // continuation byte first, C0/C1 overlongs, F5..FF
        }
        if (n - i <= extra)
            return false;
        if (s[i + 1] < low || s[i + 1] > high)
            return false;
        for (size_t k = 2; k <= extra; ++k) {
            if (s[i + k] < 0x80 || s[i + k] > 0xBF)
                return false;
        }
        i += extra + 1;
    }
    return true;
}

} // namespace quorva
