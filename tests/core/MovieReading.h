#pragma once

// Reads movies back as a player would, and as other programs read them, for the tests of movie writing.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}

#include "tests/Processes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace quorva::testing {

struct Movie {
    std::string videoTag;
    int width = 0, height = 0;
    AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
    std::vector<int64_t> times; // of the decoded pictures, in the video stream's time base
    double timeBase = 0;        // seconds
    int reordered = 0;          // picture packets whose decoding and presentation times differ
    double videoDuration = 0;   // seconds, from the stream

    AVCodecID audioCodec = AV_CODEC_ID_NONE;
    int sampleRate = 0, channels = 0;
    int64_t audioBitRate = 0;
    int64_t soundFrames = 0; // decoded from time 0 on (AAC's priming left out)
    double audioDuration = 0;
    // The loudest left sample of each 10 ms from time 0 on, and the first few pictures as decoded.
    std::vector<float> soundPeaks;
    std::vector<std::shared_ptr<AVFrame>> pictures;
    // Every left sample from time 0 on, and of every picture the luma at each point asked for.
    std::vector<float> left;
    std::vector<std::vector<int>> lumas;
};

// Decodes every picture and every sound frame of the file, as a player would; `points` (x, y) are where
// each picture's luma is read (8-bit formats).
inline Movie ReadMovie(const std::filesystem::path& path,
                       const std::vector<std::pair<int, int>>& points = {}) {
    Movie movie;
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0)
        return movie;
    avformat_find_stream_info(input, nullptr); // a stream it cannot read decodes to nothing
    AVCodecContext* decoders[8] = {};
    for (unsigned i = 0; i < input->nb_streams && i < 8; ++i) {
        const AVStream* stream = input->streams[i];
        const AVCodecParameters* p = stream->codecpar;
        const AVCodec* codec = avcodec_find_decoder(p->codec_id);
        decoders[i] = avcodec_alloc_context3(codec);
        avcodec_parameters_to_context(decoders[i], p);
        decoders[i]->pkt_timebase = stream->time_base;
        avcodec_open2(decoders[i], codec, nullptr);
        const double duration =
            stream->duration > 0 ? double(stream->duration) * av_q2d(stream->time_base) : 0;
        if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
            char tag[AV_FOURCC_MAX_STRING_SIZE] = {};
            movie.videoTag = av_fourcc_make_string(tag, p->codec_tag);
            movie.width = p->width;
            movie.height = p->height;
            movie.pixelFormat = AVPixelFormat(p->format);
            movie.primaries = p->color_primaries;
            movie.transfer = p->color_trc;
            movie.matrix = p->color_space;
            movie.range = p->color_range;
            movie.videoDuration = duration;
            movie.timeBase = av_q2d(stream->time_base);
        } else if (p->codec_type == AVMEDIA_TYPE_AUDIO) {
            movie.audioCodec = p->codec_id;
            movie.sampleRate = p->sample_rate;
            movie.channels = p->ch_layout.nb_channels;
            movie.audioBitRate = p->bit_rate;
            movie.audioDuration = duration;
        }
    }
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    auto drain = [&](unsigned index) {
        AVCodecContext* decoder = decoders[index];
        while (avcodec_receive_frame(decoder, frame) >= 0) {
            if (decoder->codec_type == AVMEDIA_TYPE_VIDEO) {
                if (movie.pictures.size() < 4)
                    movie.pictures.emplace_back(av_frame_clone(frame), [](AVFrame* f) { av_frame_free(&f); });
                movie.times.push_back(frame->best_effort_timestamp);
                std::vector<int>& lumas = movie.lumas.emplace_back();
                for (auto [x, y] : points)
                    lumas.push_back(frame->data[0][y * frame->linesize[0] + x]);
            } else {
                // The AAC encoder's priming comes out before time 0; a player skips it. Other formats than
                // AAC's float planes read as silence.
                for (int i = int(std::max<int64_t>(0, -frame->best_effort_timestamp)); i < frame->nb_samples;
                     ++i, ++movie.soundFrames) {
                    const float v = frame->format == AV_SAMPLE_FMT_FLTP
                                        ? reinterpret_cast<const float*>(frame->data[0])[i]
                                        : 0;
                    if (movie.soundFrames % 480 == 0)
                        movie.soundPeaks.push_back(0);
                    movie.soundPeaks.back() = std::max(movie.soundPeaks.back(), std::fabs(v));
                    movie.left.push_back(v);
                }
            }
            av_frame_unref(frame);
        }
    };
    while (av_read_frame(input, packet) >= 0) {
        const unsigned index = unsigned(packet->stream_index);
        if (index < 8 && decoders[index] && decoders[index]->codec_type == AVMEDIA_TYPE_VIDEO &&
            packet->pts != packet->dts)
            ++movie.reordered;
        if (index < 8 && decoders[index] && avcodec_send_packet(decoders[index], packet) >= 0)
            drain(index);
        av_packet_unref(packet);
    }
    for (unsigned i = 0; i < input->nb_streams && i < 8; ++i) {
        avcodec_send_packet(decoders[i], nullptr);
        drain(i);
        avcodec_free_context(&decoders[i]);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avformat_close_input(&input);
    return movie;
}

// A folder of the test's own for the movies it writes, removed with them at the test's end.
struct TemporaryFolder : std::filesystem::path {
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorva-movies-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            ADD_FAILURE() << "no folder for the test's movies";
        assign(pattern);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(*this); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
};

// The lines of a program's output, but the empty ones.
inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            lines.push_back(line);
    return lines;
}

// A path as one word of a shell command.
inline std::string Quoted(const std::filesystem::path& path) {
    return "'" + path.string() + "'";
}

inline double FFprobeDuration(const std::filesystem::path& path) {
    return std::atof(
        Shell("ffprobe -v error -show_entries format=duration -of csv=p=0 " + Quoted(path)).c_str());
}

// The duration GStreamer finds (0 when none), in seconds.
inline double GStreamerDuration(const std::filesystem::path& path) {
    return std::atof(
        Shell("gst-discoverer-1.0 " + Quoted(path) +
              " | awk '/Duration:/ { split($2, t, \":\"); printf \"%.9f\", t[1] * 3600 + t[2] * 60 + t[3]; "
              "exit }'")
            .c_str());
}

} // namespace quorva::testing
