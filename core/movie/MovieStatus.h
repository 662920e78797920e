#pragma once

#include <cstdint>
#include <filesystem>

namespace quorva {

// What a place reports of the movie that its source was recorded into: the take's movie implements it,
// so that places show the counts of the current or last take without knowing how movies are written.
//
// Threads: every call from any thread, during a take and after it. url() never changes; the counts
// are read from the recorder as it writes, each under its own lock, so two of them read one after the
// other may come from moments a picture apart.
class MovieStatus {
public:
    virtual ~MovieStatus() = default;

    virtual const std::filesystem::path& url() const = 0;
    virtual uint64_t framesWritten() const = 0;
    virtual uint64_t framesDropped() const = 0;
    // Seconds of sound track written.
    virtual double soundWritten() const = 0;
};

} // namespace quorva
