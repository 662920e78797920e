#pragma once

#include "core/composition/Layout.h"
#include "core/composition/RecorderPlace.h"
#include "core/control/RecorderSettings.h"
#include "core/movie/EncoderSpeed.h"
#include "core/movie/Take.h"
#include "core/source/NoIndex.h"

#include <memory>
#include <set>
#include <string_view>
#include <vector>

namespace quorva {

// What the settings make of a take of the places. Main thread only: the places' kinds are read here.

// The sound choice that stands for the computer's own sound.
inline constexpr const char* RecorderComputerSound = "computer";

// Which places' sound a take records.
struct SoundRouting {
    std::set<size_t> sources;        // places whose own movie records their sound
    size_t assembledIndex = NoIndex; // the place whose sound the assembled movie records
};

// The routing for `output` and the sound choice `sound` ("", "computer" or a place's title). Desktop
// video streams never bring sound. With the computer's sound in every separate movie, only places
// whose sources bring sound of their own record it; otherwise so does a place whose kind is not known
// yet, which may still turn out to have sound.
SoundRouting RouteSound(const Places& places, TakeOutput output, std::string_view sound);

// A take of the places as the settings describe it, and what the recorder keeps of its start.
struct PlannedTake {
    TakePlan plan;
    std::shared_ptr<const Layout> layout; // of the assembled movie; nothing without one
    // The clock place's rate: the frame rate setting, else the rate that its source announces, else the
    // common rate nearest what it was measured to send, else 30. The plan gives each place's movie its
    // rate found the same way, a source not there yet following the clock.
    double clockRate = 0;
    // The assembled movie's rate, which it keeps to: the clock's, or a whole divisor of it where the
    // machine cannot encode every picture of the take.
    double assembledRate = 0;
    // The slowest encoder preset that keeps up with every picture of the take at those rates.
    PresetChoice preset;
};

// The common frame rate (23.976, 24, 25, 29.97, 30, 48, 50, 59.94, 60, 90, 100, 120, 144, 240) within 2%
// of a measured one, else the measured one rounded to a whole number; 0 for a rate below one a second.
double CommonRate(double measured);

// The highest of `clockRate`, its half, its third and so on, at which an assembled movie of
// `assembledPixels` pixels a picture fits, beside `separatePixelsPerSecond`, into `capacity` pixels a
// second. When even the separate movies do not fit: the lowest, a picture a second or just above.
double AssembledRateThatFits(double clockRate, double assembledPixels, double separatePixelsPerSecond,
                             double capacity);

// Plans a take of `places`, its encoders' preset chosen with `encoderSpeed` (none: the writers' own
// choice). A take that asks more than the machine can encode, with no frame rate chosen, keeps every
// picture of the sources' own movies and records the assembled movie at the highest rate that fits,
// a whole divisor of its clock's, so that it stays a regular movie; a frame rate that the user chose is
// kept. The plan's time is the caller's to set, once it starts the take. An empty name gives
// "QuorvaRecorder" and the local date and time.
PlannedTake PlanTake(const RecorderSettings& settings, const Places& places,
                     const std::shared_ptr<RecorderPlace>& clockPlace, EncoderSpeed* encoderSpeed);

} // namespace quorva
