#pragma once

#include "core/control/TakePlanning.h"

#include <cstdint>
#include <filesystem>
#include <optional>

namespace quorva {

// How much of a folder's disk a take may still fill, and how fast its movies fill it. The recorder
// keeps an eye on both so that a take never runs into a full disk: a movie cut off by one loses its last
// second and its standard header, while a take finished in time keeps everything.

// Bytes that an ordinary user may still write on the disk that holds `folder`; nothing when it cannot
// be read (the folder is gone, say).
std::optional<uint64_t> FreeBytes(const std::filesystem::path& folder);

// What one movie is expected to write each second, pictures and sound, before anything is measured:
// H.264 and HEVC at the bit rate their encoder is given, ProRes at Apple's published rates for its
// profiles (which a fixed quantiser stays below on most pictures), sound as its codec writes it.
double EstimatedBytesPerSecond(Codec codec, double width, double height, double framesPerSecond,
                               double megabitsPerSecond, bool recordsSound);
// The same for every movie of a planned take. A source whose size is not known yet counts as 1080p,
// and a take of nothing as one 1080p movie: the estimate errs towards too little room, not too much.
double EstimatedBytesPerSecond(const PlannedTake& planned);

// What finishing `movies` movies after `elapsed` seconds still writes at `bytesPerSecond`: the pictures
// and sound that the encoders and the last fragment hold, the standard header over every sample, and
// the take's report.
uint64_t BytesToFinish(double bytesPerSecond, double elapsed, size_t movies);

// Minutes of recording that `freeBytes` hold at `bytesPerSecond`, the finish kept aside; 0 when even
// the finish would not fit.
double MinutesLeft(uint64_t freeBytes, double bytesPerSecond, double elapsed, size_t movies);

} // namespace quorva
