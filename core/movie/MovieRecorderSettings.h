#pragma once

#include "core/source/Names.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quorva {

// How a movie's pictures are encoded. Only ProRes 4444 keeps transparency.
enum class Codec : int64_t { H264, HEVC, ProRes422, ProRes4444 };
// "h264", "hevc", "prores422", "prores4444".
const std::vector<std::string>& NameTable(Codec);

// What one movie is to be. A plain value: the take hands each movie its own copy, and the recorder keeps
// that copy for the whole recording. Setters store what they are given; checking user input is the
// controller's job, not this value's.
class MovieRecorderSettings {
public:
    Codec codec() const { return _codec; }
    void setCodec(Codec codec) { _codec = codec; }
    // Below 1 either way: the movie takes the size of its first frame.
    int64_t width() const { return _width; }
    void setWidth(int64_t width) { _width = width; }
    int64_t height() const { return _height; }
    void setHeight(int64_t height) { _height = height; }
    // The rate of the movie's frame-rate grid; 0 or less counts as 60.
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
    // The local time of day at the movie's time 0, in seconds since midnight, where its timecode starts;
    // negative: no timecode.
    double timeOfDay() const { return _timeOfDay; }
    void setTimeOfDay(double timeOfDay) { _timeOfDay = timeOfDay; }

private:
    bool _recordsSound = false;
    Codec _codec = Codec::H264;
    int64_t _width = 0;
    int64_t _height = 0;
    double _framesPerSecond = 0;
    double _megabitsPerSecond = 0;
    std::string _encoderPreset;
    int64_t _encoderThreads = 0;
    double _timeOfDay = -1;
};

} // namespace quorva
