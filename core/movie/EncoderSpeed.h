#pragma once

#include "core/movie/MovieRecorderSettings.h"
#include "platform/ProcessorTopology.h"
#include "platform/SettingsStore.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quorva {

// The x264 and x265 speed presets a take chooses among, fastest first. Slower ones than medium cost
// twice as much again for little a live recording would notice.
inline constexpr std::array<const char*, 6> EncoderPresets = {"ultrafast", "superfast", "veryfast",
                                                              "faster",    "fast",      "medium"};

// Pixels a second that one processor encodes with each of EncoderPresets, in that order; 0 where the
// preset could not be measured.
using PresetSpeeds = std::array<double, EncoderPresets.size()>;

// The preset for one take's encoders, and whether it keeps up with the pictures.
struct PresetChoice {
    std::string preset; // empty for a codec that has no presets
    bool keepsUp = true;
    // The pixels a second that the fastest preset encodes over this machine's processors at
    // FastestShare: more than that is lost. 0 where that is not known (a codec without presets, or a
    // machine not measured yet), which sets no limit.
    double fastestCovers = 0;
};

// The part of the processors that encoding may count on. The encoders spread over threads with some
// loss: x264's frame threads wait on the rows of their reference pictures and on its lookahead, x265's
// wavefronts on the rows above, so n processors encode about 0.8 n times what one does alone. Of the
// rest, the sources and the monitor picture keep working, the sound is encoded and the movie muxed,
// and the pictures are converted (on the processors when the GPU is a software one): 0.8 of the
// machine left to the encoders, so 0.8 × 0.8, about 0.65. Scenes harder than the measured pictures
// need no further margin: those are already harder than most (grain on every picture, a pan of
// detail), and smaller than a movie's, whose larger pictures encode more cheaply per pixel.
inline constexpr double EncodingShare = 0.65;

// What the fastest preset reaches over the processors when nothing slower is left to choose: the
// margin that EncodingShare keeps for a slower preset's sake would, here, drop pictures on purpose that
// the machine could have kept. On two-core machines, takes of test patterns (1080p and 4K pictures,
// cleaner and larger than the measured ones) kept every picture where they asked 0.82 and 0.86 of the
// measured ultrafast speed over the processors; where one asked 1.23, the recorder wrote 1.02 of it
// and lost the rest. The line lies between, with a margin for a busier machine or harder pictures.
inline constexpr double FastestShare = 0.95;

// The slowest preset whose speed, over `processors` processors at EncodingShare, covers
// `pixelsPerSecond`. When none does: ultrafast, keeping up only as far as FastestShare goes. A preset
// measured at 0 never keeps up.
PresetChoice ChoosePreset(const PresetSpeeds& speeds, double processors, double pixelsPerSecond);

// What a measurement of this machine is tied to: the processor's model, the processors online and the
// encoders' libraries. Speeds remembered under another signature are measured again.
std::string MachineSignature();

// How fast this machine encodes H.264 with libx264 and HEVC with libx265, so that each take can pick the
// slowest (best-looking) preset that keeps up with the pixels it must encode, and knows what is too
// much for the machine. The speeds are measured once, on a thread of their own when the program starts
// (measureInBackground()), and remembered in the settings unless the machine was busy meanwhile; a
// processor, a processor count or encoder library that differs from the remembered one's has them
// measured again. A take never waits for a
// measurement: until the speeds are known it takes the fastest preset and sets no limit.
//
// Every call is safe from any thread. speeds() takes a second or two of one processor when the codec
// is not known yet, and waits for a measurement under way; presetFor() never waits.
class EncoderSpeed {
public:
    // Where the speeds are kept: a string of compact JSON, {"signature": ..., "h264": {preset: speed},
    // "hevc": {...}}.
    static constexpr const char* SettingsKey = "EncoderSpeed";

    // Takes the speeds remembered for this machine, in the settings or by this process.
    static std::shared_ptr<EncoderSpeed> make(std::shared_ptr<SettingsStore> settings);
    // Ends a measurement under way between two presets, without remembering it.
    ~EncoderSpeed();
    EncoderSpeed(const EncoderSpeed&) = delete;
    EncoderSpeed& operator=(const EncoderSpeed&) = delete;

    // Measures `codecs` (H.264 or HEVC), in that order, where their speeds are not known, on a thread of
    // its own that yields to the rest of the program; returns at once. Once is enough: a second call
    // does nothing.
    void measureInBackground(std::vector<Codec> codecs);

    // The preset for `pixelsPerSecond` across all of a take's H.264 or HEVC encoders, by ChoosePreset()
    // over ProcessorCapacity(), from the speeds known now. ProRes has no presets, and a machine not
    // measured yet has no speeds: the fastest preset (none for ProRes), keeping up, with no limit.
    PresetChoice presetFor(Codec codec, double pixelsPerSecond);

    // The speeds of H.264 or HEVC, measured now if they are not known: each preset encodes the same
    // moving pictures on one thread, with libx264 for H.264 and libx265 for HEVC, for about a second of
    // one processor (a little more for HEVC).
    PresetSpeeds speeds(Codec codec);

private:
    explicit EncoderSpeed(std::shared_ptr<SettingsStore> settings);
    // speeds(), or nothing when cancelled first.
    std::optional<PresetSpeeds> measuredSpeeds(Codec codec);

    const std::shared_ptr<SettingsStore> _settings;
    const double _processors;
    const std::string _signature;
    std::mutex _measuring;                              // held through a measurement
    std::mutex _lock;                                   // guards _speeds and _measurer
    std::array<std::optional<PresetSpeeds>, 2> _speeds; // H.264, HEVC; nothing until known
    std::array<bool, 2> _remembered{};                  // whether each is worth remembering
    std::atomic<bool> _cancelled{false};
    std::thread _measurer;
};

} // namespace quorva
