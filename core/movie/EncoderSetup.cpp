#include "core/movie/EncoderSetup.h"

#include "platform/Log.h"

extern "C" {
#include <libavutil/opt.h>
}

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <map>
#include <mutex>
#include <string_view>
#include <vector>

namespace quorva {

namespace {

// ProRes's own rate control searches a quantiser for every slice, which costs about eight times as
// much as encoding; a fixed quantiser is as fast as the format allows and keeps its look (lower is
// finer; its cost hardly changes with it).
constexpr int ProResQuantiser = 9;

// How many pictures an encoder may hold before the first leaves it: a quarter of a second, so that a
// fragment cut at each second of pictures that left it holds nearly that second. x264 and x265 look
// ahead this far at most (their slower presets look further by default); NVENC delays its output as long.
int EncoderLatency(AVRational rate) {
    return std::max(1, int(av_q2d(rate) / 4));
}

// The look-ahead of libx264's and libx265's presets, which a shorter latency cuts down (never up: the
// fastest presets look ahead little or not at all, and longer would cost them time).
int PresetLookahead(const std::string& encoder, const std::string& preset) {
    static const std::map<std::string, int> x264 = {{"ultrafast", 0}, {"superfast", 0}, {"veryfast", 10},
                                                    {"faster", 20},   {"fast", 30},     {"medium", 40}};
    static const std::map<std::string, int> x265 = {{"ultrafast", 5}, {"superfast", 10}, {"veryfast", 15},
                                                    {"faster", 15},   {"fast", 15},      {"medium", 20}};
    const auto& table = encoder == "libx264" ? x264 : x265;
    const auto found = table.find(preset);
    return found == table.end() ? 40 : found->second;
}

// While a hardware encoder is being tried its errors are left out of the log: its absence is the
// normal case and is logged once, in our words.
thread_local bool Probing = false;

void FFmpegLog(void* context, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_ERROR || Probing)
        return;
    char line[1024];
    int prefix = 1;
    av_log_format_line2(context, level, format, arguments, line, sizeof line, &prefix);
    std::string_view text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.remove_suffix(1);
    if (!text.empty())
        Log("FFmpeg: ", text);
}

// Whether NVENC has opened in this process: once it is known to be missing, later movies stop asking,
// but once it has worked a failure (all of its sessions in use) only means this movie falls back.
enum class Hardware { Unknown, Works, Missing };
std::atomic<Hardware> NVENC{Hardware::Unknown};

struct EncoderChoice {
    const char* name;
    bool hardware;
};

// NVENC takes frames in system memory and uploads them itself. VAAPI is left out: it wants frames in its
// own surfaces (a hardware frames context and an upload per picture), which these frames are not.
std::vector<EncoderChoice> EncoderChoices(Codec codec, EncoderUse use) {
    const bool movie = use == EncoderUse::Movie;
    switch (codec) {
    case Codec::HEVC:
        return movie ? std::vector<EncoderChoice>{{"hevc_nvenc", true}, {"libx265", false}}
                     : std::vector<EncoderChoice>{{"libx265", false}};
    case Codec::ProRes422:
    case Codec::ProRes4444:
        return {{"prores_ks", false}};
    case Codec::H264:
        break;
    }
    return movie ? std::vector<EncoderChoice>{{"h264_nvenc", true}, {"libx264", false}}
                 : std::vector<EncoderChoice>{{"libx264", false}};
}

// Opens one encoder for the movie, or answers FFmpeg's reason why not.
int OpenEncoder(const EncoderChoice& choice, const MovieWriter::Format& format, EncoderUse use,
                VideoEncoder& opened) {
    const AVCodec* codec = avcodec_find_encoder_by_name(choice.name);
    if (!codec)
        return AVERROR_ENCODER_NOT_FOUND;
    CodecContext context(avcodec_alloc_context3(codec));
    if (!context)
        return AVERROR(ENOMEM);
    const AVRational rate = GridRate(format.framesPerSecond);
    AVCodecContext* c = context.get();
    c->width = int(format.width);
    c->height = int(format.height);
    c->pix_fmt = PicturePixelFormat(format.codec);
    // Time stamps count slots of the grid.
    c->time_base = av_inv_q(rate);
    c->framerate = rate;
    c->color_primaries = AVCOL_PRI_BT709;
    c->color_trc = AVCOL_TRC_BT709;
    c->colorspace = AVCOL_SPC_BT709;
    c->color_range = AVCOL_RANGE_MPEG;
    // The movie's muxer keeps the parameter sets in the sample description, where skip pictures add
    // theirs (see SkipPictures).
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

    AVDictionary* options = nullptr;
    std::string preset;
    const Codec kind = format.codec;
    if (IsProRes(kind)) {
        // prores_ks picks its profile from its own option; left alone it writes 422 as HQ.
        av_dict_set(&options, "profile", kind == Codec::ProRes4444 ? "4444" : "standard", 0);
        c->flags |= AV_CODEC_FLAG_QSCALE;
        c->global_quality = ProResQuantiser * FF_QP2LAMBDA;
        c->thread_count = use == EncoderUse::Movie ? 0 : 1;
    } else {
        c->bit_rate =
            MovieBitRate(kind, format.width, format.height, format.framesPerSecond, format.megabitsPerSecond);
        // Editors cut anywhere within two seconds.
        c->gop_size = int(std::ceil(2 * av_q2d(rate)));
        // No reordering: a picture leaves the encoder as soon as it can, so little is held back and the
        // time stamps stay the presentation order.
        c->max_b_frames = 0;
        // A picture asked for as I is an IDR: the one after skip pictures must be (see SkipPictures).
        av_dict_set(&options, "forced-idr", "1", 0);
        const int latency = EncoderLatency(rate);
        if (choice.hardware) {
            av_dict_set(&options, "preset", "p4", 0);
            av_dict_set(&options, "rc", "vbr", 0);
            av_dict_set_int(&options, "delay", latency, 0);
        } else {
            const bool measuring = use == EncoderUse::SpeedMeasurement;
            c->thread_count = measuring ? 1 : int(format.threads);
            preset = SoftwarePreset(format);
            const int lookahead = measuring ? PresetLookahead(choice.name, preset)
                                            : std::min(latency, PresetLookahead(choice.name, preset));
            av_dict_set(&options, "preset", preset.c_str(), 0);
            // x265 makes a key frame asked for a CRA, whose picture order count goes on from the pictures
            // before, unless its GOPs are closed (which without B frames costs nothing). Where its
            // pictures follow skip pictures, temporal motion vector prediction would take a picture's
            // motion from a skip picture in place of the one it stands in for (see SkipPictures); the
            // fastest presets gain little from it. x265 ignores thread_count: one thread is no pool of its
            // own and one frame thread, which encodes one thing at a time.
            const std::string tmvp = X265RefersToLastPictureOnly(preset) ? ":temporal-mvp=0" : "";
            if (kind == Codec::HEVC)
                av_dict_set(&options, "x265-params",
                            ("log-level=error:bframes=0:open-gop=0" + tmvp + ":rc-lookahead=" +
                             std::to_string(lookahead) + (measuring ? ":pools=none:frame-threads=1" : ""))
                                .c_str(),
                            0);
            else
                av_dict_set_int(&options, "rc-lookahead", lookahead, 0);
        }
    }
    Probing = choice.hardware;
    int result = avcodec_open2(c, codec, &options);
    Probing = false;
    // An option the encoder did not take would silently change the movie: say so.
    for (const AVDictionaryEntry* left = nullptr;
         result >= 0 && (left = av_dict_get(options, "", left, AV_DICT_IGNORE_SUFFIX));)
        Log("MovieRecorder: ", std::string(choice.name) + " ignored its option " + left->key);
    av_dict_free(&options);
    if (result < 0)
        return result;
    opened = {std::move(context), choice.name, std::move(preset)};
    return 0;
}

} // namespace

AVPixelFormat PicturePixelFormat(Codec codec) {
    return codec == Codec::ProRes4444  ? AV_PIX_FMT_YUVA444P10LE
           : codec == Codec::ProRes422 ? AV_PIX_FMT_YUV422P10LE
                                       : AV_PIX_FMT_YUV420P;
}

std::string SoftwarePreset(const MovieWriter::Format& format) {
    if (!format.preset.empty())
        return format.preset;
    // ultrafast: about 50 frames a second of 1080p on two cores; superfast is a third slower.
    // veryfast: about 90 frames a second of 1080p on two cores, and clearly better pictures than the
    // faster presets at the same bit rate.
    return format.codec == Codec::HEVC ? "ultrafast" : "veryfast";
}

bool X265RefersToLastPictureOnly(const std::string& preset) {
    return preset == "ultrafast" || preset == "superfast";
}

void RouteFFmpegLog() {
    static std::once_flag routing;
    std::call_once(routing, [] { av_log_set_callback(FFmpegLog); });
}

Result<VideoEncoder> OpenVideoEncoder(const MovieWriter::Format& format, EncoderUse use) {
    RouteFFmpegLog();
    int lastError = AVERROR_ENCODER_NOT_FOUND;
    for (const EncoderChoice& choice : EncoderChoices(format.codec, use)) {
        if (choice.hardware && NVENC.load() == Hardware::Missing)
            continue;
        VideoEncoder opened;
        const int result = OpenEncoder(choice, format, use, opened);
        if (choice.hardware) {
            Hardware expected = Hardware::Unknown;
            if (result >= 0)
                NVENC.store(Hardware::Works);
            else if (NVENC.compare_exchange_strong(expected, Hardware::Missing))
                Log("MovieRecorder: ", std::string("no NVENC here (") + FFmpegErrorText(result) +
                                           "); encoding on the processor");
        }
        if (result >= 0)
            return opened;
        lastError = result;
    }
    return RecorderError(FFmpegErrorText(lastError));
}

} // namespace quorva
