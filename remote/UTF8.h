#pragma once

#include <cstddef>
#include <cstdint>

namespace quorva {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF, no truncated sequences. What
// passes here is safe to hand on to anything that expects well-formed text (logs, JSON for OSCQuery).
// Bytes from the network (OSC datagrams, HTTP requests) are checked with it before they become text.
bool IsValidUTF8(const uint8_t* s, size_t n);

} // namespace quorva
