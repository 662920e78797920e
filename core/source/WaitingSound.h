#pragma once

#include "core/source/SourceSound.h"

#include <memory>
#include <utility>

namespace quorva {

// A sound block queued for a movie, with the host time at which it arrived: a block is taken to end at
// its arrival, which is all that places it in the movie.
class WaitingSound {
public:
    WaitingSound() = default;
    WaitingSound(std::shared_ptr<SourceSound> sound, double time) : _sound(std::move(sound)), _time(time) {}

    const std::shared_ptr<SourceSound>& sound() const { return _sound; }
    void setSound(std::shared_ptr<SourceSound> sound) { _sound = std::move(sound); }
    double time() const { return _time; }
    void setTime(double time) { _time = time; }

private:
    std::shared_ptr<SourceSound> _sound;
    double _time = 0;
};

} // namespace quorva
