#pragma once

#include "core/source/Names.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorva {

// What a take writes: a movie per source, one movie of the assembled picture, or both.
enum class TakeOutput : int64_t { Separate, Assembled, Both };
// "separate", "assembled", "both": kept here rather than on Take itself so that the settings, the OSC
// parameters and the take share them without the take's movie machinery.
const std::vector<std::string>& NameTable(TakeOutput);

// A take's name or a source's title made safe as a file name: "/" and ":" become "-", and a leading "."
// becomes "-" so that no hidden file is made. Everything else (spaces, accents, punctuation) stays.
std::string FileName(std::string_view name);

// The files of one take.
struct TakeURLs {
    std::vector<std::filesystem::path> separate; // one per source title, in title order
    std::optional<std::filesystem::path> assembled;
    // What every file of the take begins with ("Show", "Show 2"): its report is "<stem>.json" and
    // "<stem>.html" beside the movies.
    std::string stem;
};

// Names a take's movies in `folder` so that none of them exists yet: "Show — Cam.mov" for each source
// (just "Show.mov" for a single source written separately) and "Show.mov" for the assembled movie, then
// "Show 2 …", "Show 3 …" until no file of the take would collide, its report's included. All movies of a
// take share one number.
// A ".mov" extension on the name, in any case, is dropped first.
TakeURLs URLsForName(std::string_view name, const std::vector<std::string>& sourceTitles, TakeOutput output,
                     const std::filesystem::path& folder);

} // namespace quorva
