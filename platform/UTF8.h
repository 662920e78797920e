#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace quorva {

// One character of UTF-8 text: its code point and the bytes that it takes.
struct CodePoint {
    char32_t value;
    size_t length;
};

// The character that begins at byte `at` of `text`, read strictly: no overlong forms, no surrogates,
// nothing above U+10FFFF, no sequence cut short. Nothing when no well-formed character begins there.
std::optional<CodePoint> CodePointAt(std::string_view text, size_t at);

// Whether the whole text is strict UTF-8 (as CodePointAt reads it). What passes is safe to hand on to
// anything that expects well-formed text (logs, JSON for OSCQuery); bytes from the network (OSC
// datagrams, HTTP requests) are checked with it before they become text.
bool IsValidUTF8(std::string_view text);

} // namespace quorva
