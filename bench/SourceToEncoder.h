#pragma once

#include "core/source/FrameSource.h"
#include "platform/PictureEngine.h"

#include <benchmark/benchmark.h>

#include <filesystem>

namespace quorva {

// What a live source's pictures cost on their way to the encoder, beside what encoding them costs: for
// `seconds`, the source's pictures go to a movie recorder (H.264, `width` × `height` at `rate`) writing
// `movie`, as a take sends them. Counters, processor milliseconds per picture: receive_ms on the source's
// thread (taking the picture in, handing it over), convert_ms for the picture's conversion into the
// encoder's frame (done once more on the handler's thread, to be timed apart), encode_ms for the
// recorder's work besides its own conversion (the encoder, the muxer); and the pictures written against
// those sent. Runs a main loop of its own.
void MeasureSourceToEncoder(benchmark::State& state, FrameSource& source,
                            const std::shared_ptr<PictureEngine>& engine, const std::filesystem::path& movie,
                            uint32_t width, uint32_t height, double rate, double seconds);

} // namespace quorva
