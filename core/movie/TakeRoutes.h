#pragma once

#include "core/movie/MovieRecorder.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace quorva {

// Where a recording take sends what arrives: each source's pictures and sound, the assembled picture and
// the computer's sound, each to the recorders of the movies that take it. Made whole when the take
// starts and never changed after; the take replaces it as a whole, by nothing when it finishes.
//
// Threads: made on the main thread; read on any thread (the sources', the composition's, the computer
// sound's) without a lock, each reader keeping the value it loaded for as long as it uses it.
struct TakeRoutes {
    struct Source {
        std::shared_ptr<MovieRecorder> pictures;           // its own movie's; nothing without one
        std::vector<std::shared_ptr<MovieRecorder>> sound; // the movies that record its sound
    };

    // By source index, in the places' order, whether or not a source has a movie of its own.
    std::vector<Source> sources;
    std::shared_ptr<MovieRecorder> assembled; // nothing without an assembled movie
    std::vector<std::shared_ptr<MovieRecorder>> computerSound;

    // Nothing for an index past the sources (NoIndex among them).
    const Source* source(size_t index) const { return index < sources.size() ? &sources[index] : nullptr; }
};

} // namespace quorva
