#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace quorva {

// What one movie is to be. A plain value: the take hands each movie its own copy, and the recorder keeps
// that copy for the whole recording. Setters store what they are given; checking user input is the
// controller's job, not this value's.
class MovieRecorderSettings {
public:
    // Codec numbers, as OSC and the saved settings speak them: 0 "h264", 1 "hevc", 2 "prores422",
    // 3 "prores4444". The order is part of the external interface and never changes. Any number other
    // than 1, 2 or 3 is encoded as H.264.
    static const std::vector<std::string>& codecNames();
    // The name of a codec number; a number outside the table reads as "h264".
    static const std::string& nameForCodec(int64_t codec);
    // Matches the whole name after lower-casing it; leaves `codec` untouched when nothing matches.
    static bool getCodec(int64_t& codec, std::string_view name);

    int64_t codec() const { return _codec; }
    void setCodec(int64_t codec) { _codec = codec; }
    // Below 1 either way: the movie takes the size of its first frame.
    int64_t width() const { return _width; }
    void setWidth(int64_t width) { _width = width; }
    int64_t height() const { return _height; }
    void setHeight(int64_t height) { _height = height; }
    // The most frames a second the movie keeps; 0 or less keeps every frame.
    double framesPerSecond() const { return _framesPerSecond; }
    void setFramesPerSecond(double framesPerSecond) { _framesPerSecond = framesPerSecond; }
    // Average bit rate of H.264 and HEVC; 0 or less lets the recorder choose from size and frame rate.
    double megabitsPerSecond() const { return _megabitsPerSecond; }
    void setMegabitsPerSecond(double megabitsPerSecond) { _megabitsPerSecond = megabitsPerSecond; }
    bool recordsSound() const { return _recordsSound; }
    void setRecordsSound(bool recordsSound) { _recordsSound = recordsSound; }
    // The speed preset of an H.264 or HEVC encoder on the processor ("ultrafast" to "medium"); empty
    // leaves the writer's own choice.
    const std::string& encoderPreset() const { return _encoderPreset; }
    void setEncoderPreset(std::string preset) { _encoderPreset = std::move(preset); }
    // Threads of such an encoder; 0 leaves the encoder's own choice, one per processor.
    int64_t encoderThreads() const { return _encoderThreads; }
    void setEncoderThreads(int64_t threads) { _encoderThreads = threads; }

private:
    bool _recordsSound = false;
    int64_t _codec = 0;
    int64_t _width = 0;
    int64_t _height = 0;
    double _framesPerSecond = 0;
    double _megabitsPerSecond = 0;
    std::string _encoderPreset;
    int64_t _encoderThreads = 0;
};

} // namespace quorva
