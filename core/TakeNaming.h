#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorva {

// What a take writes. The numbers and names are what OSC and the saved settings speak; the order never
// changes.
inline constexpr int64_t TakeOutputSeparate = 0;  // one movie per source
inline constexpr int64_t TakeOutputAssembled = 1; // one movie of the assembled picture
inline constexpr int64_t TakeOutputBoth = 2;      // both of the above

// The take's output names, kept here rather than on Take itself so that the settings, the OSC parameters
// and the take share them without the take's movie machinery: "separate", "assembled", "both".
const std::vector<std::string>& OutputNames();
// The name of an output number; a number outside the table reads as "separate".
const std::string& NameForOutput(int64_t output);
// Matches the whole name after lower-casing it; leaves `output` untouched when nothing matches.
bool GetOutput(int64_t& output, std::string_view name);

// A take's name or a source's title made safe as a file name: "/" and ":" become "-", and a leading "."
// becomes "-" so that no hidden file is made. Everything else (spaces, accents, punctuation) stays.
std::string FileName(std::string_view name);

// The files of one take.
struct TakeURLs {
    std::vector<std::filesystem::path> separate; // one per source title, in title order
    std::optional<std::filesystem::path> assembled;
};

// Names a take's movies in `folder` so that none of them exists yet: "Show — Cam.mov" for each source
// (just "Show.mov" for a single source written separately) and "Show.mov" for the assembled movie, then
// "Show 2 …", "Show 3 …" until no file of the take would collide. All movies of a take share one number.
// A ".mov" extension on the name, in any case, is dropped first. `output` is one of the TakeOutput
// numbers; any other number is taken as separate.
TakeURLs URLsForName(std::string_view name, const std::vector<std::string>& sourceTitles, int64_t output,
                     const std::filesystem::path& folder);

} // namespace quorva
