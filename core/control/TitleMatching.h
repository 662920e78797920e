#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorva {

// Matching what a person typed, or a remote client sent, against the titles of sources. Titles come
// from people and from the network, in any script: letter case is folded per character with the C
// library's Unicode tables, not for ASCII letters only. Text that is not UTF-8 still matches itself.
//
// Pure functions, callable from any thread.

// The candidate equal to `text` if there is one; otherwise the first, in order, that contains `text`
// ignoring case; nothing when none does.
std::optional<std::string> MatchingTitle(std::string_view text, const std::vector<std::string>& candidates);

// Whether the two texts are the same ignoring case.
bool EqualIgnoringCase(std::string_view one, std::string_view other);

} // namespace quorva
