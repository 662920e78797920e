#pragma once

#include "core/movie/FFmpegHandles.h"
#include "core/movie/MovieWriter.h"
#include "platform/Error.h"

#include <string>

namespace quorva {

inline bool IsProRes(Codec codec) {
    return codec == Codec::ProRes422 || codec == Codec::ProRes4444;
}

// What a movie's pictures hold: yuv420p for H.264 and HEVC, yuv422p10le for ProRes 422, yuva444p10le
// for ProRes 4444.
AVPixelFormat PicturePixelFormat(Codec codec);

// The speed preset of libx264 or libx265 for a movie of `format`: its own, or veryfast for H.264 and
// ultrafast for HEVC.
std::string SoftwarePreset(const MovieWriter::Format& format);

// Whether x265's preset refers to the last picture only (--ref 1).
bool X265RefersToLastPictureOnly(const std::string& preset);

// Sends FFmpeg's errors to the log with our prefix and leaves out its chatter (every encoder's settings,
// at information level, would flood the journal). Once is enough; later calls do nothing.
void RouteFFmpegLog();

// Who an encoder is opened for. A movie's encoder is NVENC where this machine has it, else the
// processor's, over the threads that the format gives, looking ahead no further than a quarter of a
// second of its pictures. The speed measurement's is the processor's, on one thread, so that what it
// measures is what one processor does, and looks ahead as far as its preset does, the furthest that a
// movie's encoder ever looks: the speed measured is never more than a movie at any rate gets.
enum class EncoderUse { Movie, SpeedMeasurement };

// An opened picture encoder and what it is: its name ("libx264", "h264_nvenc", "prores_ks") and, for
// libx264 and libx265, its speed preset.
struct VideoEncoder {
    CodecContext context;
    std::string name;
    std::string preset;
};

// Opens the picture encoder for a movie of `format` (its codec, size, rate, bit rate, preset and
// threads), set up as every movie's is: time stamps in slots of the grid, BT.709 tags, a key frame every
// two seconds, no reordering, at most a quarter of a second held in the encoder, parameter sets in the
// global header. Fails with FFmpeg's reason from the last encoder tried. Whether NVENC is missing is
// learnt once per process and logged then.
//
// Threads: any; each encoder is its caller's own.
Result<VideoEncoder> OpenVideoEncoder(const MovieWriter::Format& format, EncoderUse use = EncoderUse::Movie);

} // namespace quorva
