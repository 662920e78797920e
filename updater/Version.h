#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorva {

// A version as people write it: trimmed of white space and new lines, and without one leading "v" or
// "V" ("v1.2\n" is "1.2").
std::string NormalizeVersion(std::string_view version);

// Whether `candidate` is a later release than `current`. The part before the first "-" counts ("1.2-beta"
// is 1.2), split at "."; each piece is the number its leading digits give (none: 0), and a missing
// piece counts as 0, so "1.2" equals "1.2.0" and "1.10" is later than "1.9". With equal numbers the
// candidate is later only when both builds are known and its build is greater.
bool IsNewerVersion(std::string_view candidate, std::optional<int64_t> candidateBuild,
                    std::string_view current, std::optional<int64_t> currentBuild);

} // namespace quorva
