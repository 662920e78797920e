#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <memory>

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

} // namespace quorva
