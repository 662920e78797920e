#include "core/MovieWriter.h"

#include "core/FFmpegHandles.h"
#include "platform/Log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace quorva {

namespace {

bool IsProRes(Codec codec) {
    return codec == Codec::ProRes422 || codec == Codec::ProRes4444;
}

double ExpectedRate(double framesPerSecond) {
    return framesPerSecond > 0 ? framesPerSecond : 60;
}

// Sound is encoded in pieces of this many frames: what the AAC encoder wants, and small enough that
// 24-bit PCM goes out as promptly.
constexpr int SoundPiece = 1024;

// ProRes's own rate control searches a quantiser for every slice, which costs about eight times as
// much as encoding; a fixed quantiser is as fast as the format allows and keeps its look (lower is
// finer; its cost hardly changes with it).
constexpr int ProResQuantiser = 9;

// delay_moov: the movie's header waits for the first fragment, so that it knows where each track
// starts and can say so in edit lists: the AAC encoder's priming is hidden that way, not by moving every
// track later, and a picture track that starts late starts late. frag_custom: the writer cuts the
// fragments itself (see cutFragment), so that it knows which pictures have reached the file.
constexpr const char* MovieFlags = "+delay_moov+frag_custom";

// The first fragment is cut when the pictures reach one second (1/60000 s), so that a movie cut short
// early by a crash, a kill or a full disk still opens; then one every ten seconds, so that a movie whose
// writer dies keeps all but its last few seconds.
constexpr int64_t FirstFragment = MovieWriter::TimeScale;
constexpr int64_t FragmentDuration = 10 * int64_t(MovieWriter::TimeScale);

Error Closed() {
    return RecorderError("The movie is already closed");
}

std::string Describe(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

// FFmpeg's chatter (every encoder's settings, at information level) would flood the journal; its errors
// go to the log with our prefix. While a hardware encoder is being tried they are left out: its absence
// is the normal case and is logged once, in our words.
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

void TagColours(AVFrame* frame) {
    frame->color_primaries = AVCOL_PRI_BT709;
    frame->color_trc = AVCOL_TRC_BT709;
    frame->colorspace = AVCOL_SPC_BT709;
    frame->color_range = AVCOL_RANGE_MPEG;
}

struct VideoEncoder {
    const char* name;
    bool hardware;
};

// NVENC takes frames in system memory and uploads them itself. VAAPI is left out: it wants frames in its
// own surfaces (a hardware frames context and an upload per picture), which these frames are not.
std::vector<VideoEncoder> VideoEncoders(Codec codec) {
    switch (codec) {
    case Codec::HEVC:
        return {{"hevc_nvenc", true}, {"libx265", false}};
    case Codec::ProRes422:
    case Codec::ProRes4444:
        return {{"prores_ks", false}};
    case Codec::H264:
        break;
    }
    return {{"h264_nvenc", true}, {"libx264", false}};
}

// The preset of libx264 or libx265 for the movie.
std::string SoftwarePreset(const MovieWriter::Format& format) {
    if (!format.preset.empty())
        return format.preset;
    // ultrafast: about 50 frames a second of 1080p on two cores; superfast is a third slower.
    // veryfast: about 90 frames a second of 1080p on two cores, and clearly better pictures than the
    // faster presets at the same bit rate.
    return format.codec == Codec::HEVC ? "ultrafast" : "veryfast";
}

// Opens one encoder for the movie, or answers why not.
int OpenVideoEncoder(const VideoEncoder& choice, const MovieWriter::Format& format, AVPixelFormat pixelFormat,
                     bool globalHeader, CodecContext& opened) {
    const AVCodec* codec = avcodec_find_encoder_by_name(choice.name);
    if (!codec)
        return AVERROR_ENCODER_NOT_FOUND;
    CodecContext context(avcodec_alloc_context3(codec));
    if (!context)
        return AVERROR(ENOMEM);
    const double rate = ExpectedRate(format.framesPerSecond);
    AVCodecContext* c = context.get();
    c->width = int(format.width);
    c->height = int(format.height);
    c->pix_fmt = pixelFormat;
    c->time_base = AVRational{1, MovieWriter::TimeScale};
    c->framerate = av_d2q(rate, 1 << 20);
    c->color_primaries = AVCOL_PRI_BT709;
    c->color_trc = AVCOL_TRC_BT709;
    c->colorspace = AVCOL_SPC_BT709;
    c->color_range = AVCOL_RANGE_MPEG;
    if (globalHeader)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

    AVDictionary* options = nullptr;
    const Codec kind = format.codec;
    if (IsProRes(kind)) {
        // prores_ks picks its profile from its own option; left alone it writes 422 as HQ.
        av_dict_set(&options, "profile", kind == Codec::ProRes4444 ? "4444" : "standard", 0);
        c->flags |= AV_CODEC_FLAG_QSCALE;
        c->global_quality = ProResQuantiser * FF_QP2LAMBDA;
        c->thread_count = 0;
    } else {
        c->bit_rate =
            MovieBitRate(kind, format.width, format.height, format.framesPerSecond, format.megabitsPerSecond);
        // Editors cut anywhere within two seconds, and a movie cut short loses at most that much.
        c->gop_size = int(std::ceil(2 * rate));
        // No reordering: a picture leaves the encoder as soon as it can, so little is held back and the
        // time stamps stay the presentation order.
        c->max_b_frames = 0;
        if (choice.hardware) {
            av_dict_set(&options, "preset", "p4", 0);
            av_dict_set(&options, "rc", "vbr", 0);
        } else {
            c->thread_count = int(format.threads);
            av_dict_set(&options, "preset", SoftwarePreset(format).c_str(), 0);
            if (kind == Codec::HEVC)
                av_dict_set(&options, "x265-params", "log-level=error:bframes=0", 0);
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
    opened = std::move(context);
    return 0;
}

// The file's own output, so that it can be created exclusively (nothing is ever overwritten, even by a
// file that appeared after the recorder looked) and synced at the end.
int WriteFile(void* opaque, uint8_t* data, int size) {
    const int fd = *static_cast<int*>(opaque);
    int done = 0;
    while (done < size) {
        ssize_t n = ::write(fd, data + done, size_t(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return AVERROR(errno);
        if (n == 0)
            return AVERROR(EIO);
        done += int(n);
    }
    return done;
}

int64_t SeekFile(void* opaque, int64_t offset, int whence) {
    const int fd = *static_cast<int*>(opaque);
    if (whence == AVSEEK_SIZE) {
        struct stat status;
        return fstat(fd, &status) == 0 ? int64_t(status.st_size) : AVERROR(errno);
    }
    off_t position = lseek(fd, offset, whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : int64_t(position);
}

} // namespace

Error RecorderError(std::string message) {
    return Error(MovieRecorderErrorDomain, -1, std::move(message));
}

int64_t MovieBitRate(Codec codec, int64_t width, int64_t height, double framesPerSecond,
                     double megabitsPerSecond) {
    if (megabitsPerSecond > 0)
        return std::llround(megabitsPerSecond * 1000000);
    const double factor = codec == Codec::HEVC ? 0.06 : 0.1;
    const double bits = factor * ExpectedRate(framesPerSecond) * double(width) * double(height);
    return std::max<int64_t>(std::llround(bits), 1000000);
}

struct MovieWriter::State {
    int fd = -1;
    bool created = false;
    AVFormatContext* muxer = nullptr;
    AVIOContext* io = nullptr;
    CodecContext video;
    CodecContext audio;
    AVStream* videoStream = nullptr;
    AVStream* audioStream = nullptr;
    AVBufferPool* pool = nullptr;
    Packet packet;
    // The newest picture's packet waits for the next one: only then is its duration known, and at the
    // end it is the one that holds the last picture until the movie's end.
    Packet heldVideo;
    bool holdsVideo = false;
    // Sound not yet encoded, interleaved stereo, from soundRead on; it starts at soundEncoded (frames).
    std::vector<float> sound;
    size_t soundRead = 0;
    int64_t soundEncoded = 0;
    // What the muxer has been handed, and where the next fragment is due (1/60000 s of pictures).
    uint64_t picturesMuxed = 0;
    bool soundMuxed = false;
    int64_t soundMuxedEnd = 0; // 48 kHz frames; the AAC encoder's priming lies before 0
    bool headerWritten = false;
    int64_t nextFragment = FirstFragment;
    // The file's size at the end of the last complete fragment: what a failure leaves is cut back to it.
    int64_t fileEnd = 0;

    ~State() {
        if (pool)
            av_buffer_pool_uninit(&pool);
        video.reset();
        audio.reset();
        if (muxer)
            avformat_free_context(muxer);
        if (io) {
            av_freep(&io->buffer);
            avio_context_free(&io);
        }
        if (fd >= 0)
            ::close(fd);
    }

    int64_t soundFrames() const { return int64_t(sound.size() - soundRead) / 2; }
};

MovieWriter::MovieWriter(std::filesystem::path path, Format format)
    : _path(std::move(path)), _format(format), _state(std::make_unique<State>()) {}

MovieWriter::~MovieWriter() {
    close(false);
}

Result<std::unique_ptr<MovieWriter>> MovieWriter::make(const std::filesystem::path& path,
                                                       const Format& format) {
    static std::once_flag logging;
    std::call_once(logging, [] { av_log_set_callback(FFmpegLog); });

    std::unique_ptr<MovieWriter> writer(new MovieWriter(path, format));
    for (auto step : {&MovieWriter::openFile, &MovieWriter::openVideo, &MovieWriter::openAudio,
                      &MovieWriter::writeHeader}) {
        Result<> result = (writer.get()->*step)();
        if (!result) {
            writer->close(true);
            return result.error();
        }
    }
    const std::string& encoder = writer->_encoderName;
    const std::string preset =
        encoder == "libx264" || encoder == "libx265" ? " preset " + SoftwarePreset(writer->_format) : "";
    Log("MovieRecorder: ", "writing " + path.filename().string() + " with " + encoder + preset + " (" +
                               std::to_string(format.width) + " × " + std::to_string(format.height) + ")");
    return writer;
}

Result<> MovieWriter::openFile() {
    State& s = *_state;
    s.fd = ::open(_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (s.fd < 0) {
        if (errno == EEXIST)
            return RecorderError("“" + _path.filename().string() + "” already exists");
        Log("MovieRecorder: ", "cannot create " + _path.string() + ": " + std::strerror(errno));
        return RecorderError("The movie file could not be created");
    }
    s.created = true;
    constexpr int BufferSize = 1 << 16;
    auto* buffer = static_cast<unsigned char*>(av_malloc(BufferSize));
    if (buffer)
        s.io = avio_alloc_context(buffer, BufferSize, 1, &s.fd, nullptr, WriteFile, SeekFile);
    if (!s.io) {
        av_free(buffer);
        return RecorderError("The movie file could not be created");
    }
    s.io->seekable = AVIO_SEEKABLE_NORMAL;
    if (avformat_alloc_output_context2(&s.muxer, nullptr, "mov", nullptr) < 0 || !s.muxer)
        return RecorderError("The movie file could not be created");
    s.muxer->pb = s.io;
    s.muxer->flags |= AVFMT_FLAG_CUSTOM_IO;
    s.packet.reset(av_packet_alloc());
    s.heldVideo.reset(av_packet_alloc());
    if (!s.packet || !s.heldVideo)
        return RecorderError("The movie file could not be created");
    return {};
}

Result<> MovieWriter::openVideo() {
    State& s = *_state;
    const Codec codec = _format.codec;
    _pixelFormat = codec == Codec::ProRes4444  ? AV_PIX_FMT_YUVA444P10LE
                   : codec == Codec::ProRes422 ? AV_PIX_FMT_YUV422P10LE
                                               : AV_PIX_FMT_YUV420P;
    const std::string refused = "A " + NameOf(codec) + " movie of " + std::to_string(_format.width) + " × " +
                                std::to_string(_format.height) + " cannot be written";
    if (_format.width < 1 || _format.height < 1 || _format.width > INT32_MAX || _format.height > INT32_MAX ||
        av_image_check_size(unsigned(_format.width), unsigned(_format.height), 0, nullptr) < 0)
        return RecorderError(refused);

    const bool globalHeader = s.muxer->oformat->flags & AVFMT_GLOBALHEADER;
    int lastError = 0;
    for (const VideoEncoder& choice : VideoEncoders(codec)) {
        if (choice.hardware && NVENC.load() == Hardware::Missing)
            continue;
        int result = OpenVideoEncoder(choice, _format, _pixelFormat, globalHeader, s.video);
        if (choice.hardware) {
            Hardware expected = Hardware::Unknown;
            if (result >= 0)
                NVENC.store(Hardware::Works);
            else if (NVENC.compare_exchange_strong(expected, Hardware::Missing))
                Log("MovieRecorder: ",
                    std::string("no NVENC here (") + Describe(result) + "); encoding on the processor");
        }
        if (result >= 0) {
            _encoderName = choice.name;
            break;
        }
        lastError = result;
    }
    if (!s.video) {
        Log("MovieRecorder: ", refused + ": " + Describe(lastError));
        return RecorderError(refused);
    }

    _frameFormat = FrameFormat::padded(codec == Codec::ProRes4444  ? FrameLayout::YUVA444P10
                                       : codec == Codec::ProRes422 ? FrameLayout::YUV422P10
                                                                   : FrameLayout::YUV420P,
                                       uint32_t(_format.width), uint32_t(_format.height));
    s.pool = av_buffer_pool_init(_frameFormat.bytes, av_buffer_allocz);
    if (!s.pool)
        return RecorderError(refused);

    s.videoStream = avformat_new_stream(s.muxer, nullptr);
    if (!s.videoStream || avcodec_parameters_from_context(s.videoStream->codecpar, s.video.get()) < 0)
        return RecorderError("The movie file could not be set up");
    s.videoStream->time_base = s.video->time_base;
    s.videoStream->avg_frame_rate = s.video->framerate;
    // Apple's players want HEVC tagged hvc1 (parameter sets in the sample description), not hev1.
    if (codec == Codec::HEVC)
        s.videoStream->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');
    return {};
}

Result<> MovieWriter::openAudio() {
    if (!_format.recordsSound)
        return {};
    State& s = *_state;
    const bool proRes = IsProRes(_format.codec);
    const AVCodec* codec = avcodec_find_encoder_by_name(proRes ? "pcm_s24le" : "aac");
    if (codec)
        s.audio.reset(avcodec_alloc_context3(codec));
    if (!s.audio)
        return RecorderError("The movie's sound track could not be set up");
    AVCodecContext* c = s.audio.get();
    c->sample_fmt = proRes ? AV_SAMPLE_FMT_S32 : AV_SAMPLE_FMT_FLTP;
    c->sample_rate = SoundRate;
    c->time_base = AVRational{1, SoundRate};
    if (!proRes)
        c->bit_rate = 256000;
    if (s.muxer->oformat->flags & AVFMT_GLOBALHEADER)
        c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    const AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    int result = av_channel_layout_copy(&c->ch_layout, &stereo);
    // FFmpeg's AAC encoder searches its quantisers in two loops by default, which costs a take of eight
    // movies a good part of a processor; at 256 kb/s the fast search sounds the same.
    AVDictionary* options = nullptr;
    if (!proRes)
        av_dict_set(&options, "aac_coder", "fast", 0);
    if (result >= 0)
        result = avcodec_open2(c, codec, &options);
    av_dict_free(&options);
    if (result < 0) {
        Log("MovieRecorder: ",
            std::string("the sound encoder ") + codec->name + " did not open: " + Describe(result));
        return RecorderError("The movie's sound track could not be set up");
    }
    s.audioStream = avformat_new_stream(s.muxer, nullptr);
    if (!s.audioStream || avcodec_parameters_from_context(s.audioStream->codecpar, c) < 0)
        return RecorderError("The movie's sound track could not be set up");
    s.audioStream->time_base = c->time_base;
    return {};
}

Result<> MovieWriter::writeHeader() {
    State& s = *_state;
    AVDictionary* options = nullptr;
    // The movie's own clock as fine as the pictures', so that an edit list (a track that starts late)
    // lands exactly on the 1/60000 grid rather than on whole milliseconds.
    av_dict_set(&options, "movie_timescale", "60000", 0);
    av_dict_set(&options, "movflags", MovieFlags, 0);
    int result = avformat_write_header(s.muxer, &options);
    av_dict_free(&options);
    if (result >= 0) {
        avio_flush(s.io);
        result = s.io->error;
    }
    if (result < 0) {
        Log("MovieRecorder: ", "cannot write the header of " + _path.string() + ": " + Describe(result));
        return RecorderError("The movie file could not be written");
    }
    return {};
}

MovieFrame MovieWriter::makeFrame() {
    return _state ? frameOver(av_buffer_pool_get(_state->pool)) : nullptr;
}

MovieFrame MovieWriter::wrapFrame(uint8_t* memory, std::function<void()> release) {
    auto* owner = new std::function<void()>(std::move(release));
    AVBufferRef* buffer = av_buffer_create(
        memory, _frameFormat.bytes,
        [](void* opaque, uint8_t*) {
            auto* release = static_cast<std::function<void()>*>(opaque);
            if (*release)
                (*release)();
            delete release;
        },
        owner, 0);
    if (!buffer) {
        if (*owner)
            (*owner)();
        delete owner;
    }
    return frameOver(buffer);
}

MovieFrame MovieWriter::frameOver(AVBufferRef* buffer) {
    if (!buffer)
        return nullptr;
    MovieFrame frame(av_frame_alloc());
    if (!frame) {
        av_buffer_unref(&buffer);
        return nullptr;
    }
    frame->buf[0] = buffer;
    frame->format = _pixelFormat;
    frame->width = int(_format.width);
    frame->height = int(_format.height);
    for (size_t i = 0; i < _frameFormat.planes.size(); ++i) {
        frame->data[i] = buffer->data + _frameFormat.planes[i].offset;
        frame->linesize[i] = int(_frameFormat.planes[i].stride);
    }
    TagColours(frame.get());
    return frame;
}

Result<> MovieWriter::fail(const std::string& what, int code) {
    if (!_failure) {
        Log("MovieRecorder: ", _path.string() + ": " + what + ": " + Describe(code));
        _failure = std::make_unique<Error>(RecorderError(what + ": " + Describe(code)));
    }
    return *_failure;
}

Result<> MovieWriter::appendFrame(MovieFrame frame, int64_t time) {
    if (_failure)
        return *_failure;
    if (!_state)
        return Closed();
    if (!frame || frame->format != _pixelFormat || frame->width != _format.width ||
        frame->height != _format.height)
        return RecorderError("A picture of another format or size cannot be written to this movie");
    if (time <= _lastTime)
        return RecorderError("A picture cannot be written at or before the time of the last one");
    frame->pts = time;
    frame->pict_type = AV_PICTURE_TYPE_NONE;
    TagColours(frame.get());
    Result<> result = encodeVideo(frame.get());
    if (!result)
        return result;
    _lastTime = time;
    ++_framesWritten;
    return time >= _state->nextFragment ? cutFragment(time) : Result<>();
}

Result<> MovieWriter::cutFragment(int64_t time) {
    State& s = *_state;
    // The first fragment carries the movie's header, which says where each track starts, so every track
    // must have begun. A sound track still empty then would keep the whole movie in memory, unreadable if
    // the writer died: it starts with a moment of silence instead, the one packet it takes. Sound that
    // would have gone there comes too late for it.
    if (s.audio && !s.soundMuxed) {
        Result<> started = appendSound(nullptr, 2 * SoundPiece, _soundPosition);
        if (!started)
            return started;
    }
    // The encoder may still hold every picture since the last fragment: the cut waits for one.
    if (s.picturesMuxed == _framesInFile || (s.audio && !s.soundMuxed))
        return {};
    // The first call writes the header alone, which waited for this moment; the fragment follows.
    for (int calls = s.headerWritten ? 1 : 2; calls > 0; --calls)
        av_write_frame(s.muxer, nullptr);
    s.headerWritten = true;
    avio_flush(s.io);
    const int64_t size = s.io->error < 0 ? s.io->error : avio_size(s.io);
    if (size < 0)
        return fail("The movie could not be written", int(size));
    s.fileEnd = size;
    s.nextFragment = time + FragmentDuration;
    _framesInFile = s.picturesMuxed;
    _soundInFile = std::max<int64_t>(s.soundMuxedEnd, 0);
    return {};
}

Result<> MovieWriter::encodeVideo(AVFrame* frame) {
    State& s = *_state;
    int result = avcodec_send_frame(s.video.get(), frame);
    if (result < 0)
        return fail("The movie could not be written", result);
    for (;;) {
        result = avcodec_receive_packet(s.video.get(), s.packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return {};
        if (result < 0)
            return fail("The movie could not be written", result);
        Result<> written = writeVideoPacket(s.packet.get(), s.packet->pts);
        if (!written)
            return written;
    }
}

// Writes the held picture, now that the next one (at `nextTime`) fixes its duration, and holds `packet`
// instead; a null packet writes the held one alone.
Result<> MovieWriter::writeVideoPacket(AVPacket* packet, int64_t nextTime) {
    State& s = *_state;
    if (s.holdsVideo) {
        AVPacket* held = s.heldVideo.get();
        held->duration = nextTime > held->pts ? nextTime - held->pts : 1;
        held->stream_index = s.videoStream->index;
        av_packet_rescale_ts(held, s.video->time_base, s.videoStream->time_base);
        int result = av_write_frame(s.muxer, held);
        av_packet_unref(held);
        s.holdsVideo = false;
        if (result >= 0)
            result = s.io->error;
        if (result < 0)
            return fail("The movie could not be written", result);
        ++s.picturesMuxed;
    }
    if (packet) {
        av_packet_move_ref(s.heldVideo.get(), packet);
        s.holdsVideo = true;
    }
    return {};
}

Result<> MovieWriter::appendSound(const float* samples, int64_t frameCount, int64_t position) {
    if (_failure)
        return *_failure;
    if (!_state)
        return Closed();
    State& s = *_state;
    if (!s.audio)
        return RecorderError("This movie has no sound track");
    if (frameCount < 0)
        return RecorderError("A negative amount of sound cannot be written");
    // What falls before the end of the track can no longer be written: its frames are left out.
    const int64_t late = std::clamp<int64_t>(_soundPosition - position, 0, frameCount);
    position += late;
    frameCount -= late;
    if (samples)
        samples += 2 * late;
    // A gap is filled with silence a second at a time, so that a long one never needs a long buffer.
    while (position > _soundPosition || frameCount > 0) {
        const bool gap = position > _soundPosition;
        const int64_t count = std::min<int64_t>(gap ? position - _soundPosition : frameCount, SoundRate);
        if (gap || !samples)
            s.sound.insert(s.sound.end(), size_t(2 * count), 0.0f);
        else
            s.sound.insert(s.sound.end(), samples, samples + 2 * count);
        _soundPosition += count;
        if (!gap) {
            frameCount -= count;
            if (samples)
                samples += 2 * count;
        }
        Result<> result = encodeSound(false);
        if (!result)
            return result;
    }
    return {};
}

// Encodes the buffered sound in whole pieces; when draining, the rest too, and then the encoder's tail.
Result<> MovieWriter::encodeSound(bool draining) {
    State& s = *_state;
    AVCodecContext* c = s.audio.get();
    while (s.soundFrames() >= SoundPiece || (draining && s.soundFrames() > 0)) {
        const int count = int(std::min<int64_t>(s.soundFrames(), SoundPiece));
        MovieFrame frame(av_frame_alloc());
        if (!frame)
            return fail("The movie could not be written", AVERROR(ENOMEM));
        frame->nb_samples = count;
        frame->format = c->sample_fmt;
        frame->sample_rate = SoundRate;
        int result = av_channel_layout_copy(&frame->ch_layout, &c->ch_layout);
        if (result >= 0)
            result = av_frame_get_buffer(frame.get(), 0);
        if (result < 0)
            return fail("The movie could not be written", result);
        const float* in = s.sound.data() + s.soundRead;
        if (c->sample_fmt == AV_SAMPLE_FMT_FLTP) {
            auto* left = reinterpret_cast<float*>(frame->data[0]);
            auto* right = reinterpret_cast<float*>(frame->data[1]);
            for (int i = 0; i < count; ++i) {
                left[i] = in[2 * i];
                right[i] = in[2 * i + 1];
            }
        } else {
            // 24-bit PCM travels in the top bits of 32-bit samples.
            auto* out = reinterpret_cast<int32_t*>(frame->data[0]);
            for (int i = 0; i < 2 * count; ++i) {
                const float clipped = std::clamp(in[i], -1.0f, 1.0f);
                out[i] = int32_t(std::lrint(double(clipped) * 8388607.0)) * 256;
            }
        }
        frame->pts = s.soundEncoded;
        s.soundRead += size_t(2 * count);
        s.soundEncoded += count;
        if ((result = avcodec_send_frame(c, frame.get())) < 0)
            return fail("The movie could not be written", result);
        Result<> written = writeSoundPackets();
        if (!written)
            return written;
    }
    // Keep the buffer from growing: what was encoded goes once it is most of it.
    if (s.soundRead > 0 && s.soundRead >= s.sound.size() / 2) {
        s.sound.erase(s.sound.begin(), s.sound.begin() + std::ptrdiff_t(s.soundRead));
        s.soundRead = 0;
    }
    if (draining) {
        int result = avcodec_send_frame(c, nullptr);
        if (result < 0 && result != AVERROR_EOF)
            return fail("The movie could not be written", result);
        return writeSoundPackets();
    }
    return {};
}

Result<> MovieWriter::writeSoundPackets() {
    State& s = *_state;
    for (;;) {
        int result = avcodec_receive_packet(s.audio.get(), s.packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return {};
        const int64_t end = s.packet->pts + s.packet->duration;
        if (result >= 0) {
            s.packet->stream_index = s.audioStream->index;
            av_packet_rescale_ts(s.packet.get(), s.audio->time_base, s.audioStream->time_base);
            result = av_write_frame(s.muxer, s.packet.get());
            av_packet_unref(s.packet.get());
            if (result >= 0)
                result = s.io->error;
        }
        if (result < 0)
            return fail("The movie could not be written", result);
        s.soundMuxed = true;
        s.soundMuxedEnd = end;
    }
}

Result<> MovieWriter::finish(int64_t endTime) {
    if (_failure) {
        close(false);
        return *_failure;
    }
    if (!_state)
        return Closed();
    if (_framesWritten == 0) {
        close(true);
        return RecorderError("No frame was received, so no movie was written");
    }
    State& s = *_state;
    if (s.audio) {
        // Sound past the end would outlast the pictures; what is still buffered of it is dropped.
        const int64_t end = endTime * SoundRate / TimeScale;
        const int64_t excess =
            std::clamp<int64_t>(s.soundEncoded + s.soundFrames() - end, 0, s.soundFrames());
        s.sound.resize(s.sound.size() - size_t(2 * excess));
        Result<> result = encodeSound(true);
        if (!result) {
            close(false);
            return result;
        }
    }
    Result<> result = encodeVideo(nullptr);
    if (result && s.holdsVideo) {
        const int64_t frame = std::llround(TimeScale / ExpectedRate(_format.framesPerSecond));
        const int64_t last = s.heldVideo->pts;
        result = writeVideoPacket(nullptr, endTime > last ? endTime : last + std::max<int64_t>(frame, 1));
    }
    if (result) {
        int code = av_write_trailer(s.muxer);
        if (code >= 0) {
            avio_flush(s.io);
            code = s.io->error;
        }
        if (code >= 0 && ::fsync(s.fd) != 0)
            code = AVERROR(errno);
        if (code < 0) {
            result = fail("The movie could not be finished", code);
        } else {
            _framesInFile = s.picturesMuxed;
            _soundInFile = std::max<int64_t>(s.soundMuxedEnd, 0);
        }
    }
    close(false);
    return result;
}

void MovieWriter::cancel() {
    close(true);
}

void MovieWriter::close(bool remove) {
    if (!_state)
        return;
    // Nothing reaches the file but whole fragments, each flushed as it is cut. A movie without one holds
    // no picture and is not kept; after a failure, whatever follows the last one is a piece of the next,
    // which would only trouble a player.
    remove = remove || _framesInFile == 0;
    if (!remove && _failure && ::ftruncate(_state->fd, _state->fileEnd) != 0)
        Log("MovieRecorder: ",
            "cannot cut " + _path.string() + " back to its last fragment: " + std::strerror(errno));
    const bool created = _state->created;
    _state.reset();
    if (remove && created)
        ::unlink(_path.c_str());
}

} // namespace quorva
