#pragma once

#include <cstddef>
#include <cstdint>

namespace quorva {

// Marks the absence of an index: a place's movie or sound index between takes, the assembled movie's
// sound when no source gives it, and the assembled movie where a failure names the movie by its source.
// The largest signed 64-bit value, so that it reads the same wherever an index is a signed number.
inline constexpr size_t NoIndex = size_t(INT64_MAX);

} // namespace quorva
