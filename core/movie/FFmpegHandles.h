#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <memory>
#include <string>

namespace quorva {

// Owners of FFmpeg's objects that free them the way FFmpeg wants, for the code that drives its encoders.
struct CodecContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
using CodecContext = std::unique_ptr<AVCodecContext, CodecContextFree>;

struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using Packet = std::unique_ptr<AVPacket, PacketFree>;

// FFmpeg's sentence for an error code, for the log.
inline std::string FFmpegErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

} // namespace quorva
