#pragma once

#include <cstdint>
#include <filesystem>

namespace quorva {

// What a place reports of the movie that its source was recorded into: the take's movie implements it,
// so that places show the counts of the current or last take without knowing how movies are written.
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
