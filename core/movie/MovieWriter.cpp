#include "core/movie/MovieWriter.h"

#include "core/movie/EncoderSetup.h"
#include "core/movie/FFmpegHandles.h"
#include "core/movie/MovieFile.h"
#include "core/movie/SkipPictures.h"
#include "core/movie/StandardMovie.h"
#include "platform/Log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libavutil/timecode.h>
}

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <deque>
#include <unistd.h>

namespace quorva {

namespace {

// Sound is encoded in pieces of this many frames: what the AAC encoder wants, and small enough that
// 24-bit PCM goes out as promptly.
constexpr int SoundPiece = 1024;

// delay_moov: the movie's header waits for the first fragment, so that it knows where each track
// starts and can say so in edit lists: the AAC encoder's priming is hidden that way. frag_custom: the
// writer cuts the fragments itself (see cutFragment), so that it knows which pictures have reached the
// file.
constexpr const char* MovieFlags = "+delay_moov+frag_custom";

Error Closed() {
    return RecorderError("The movie is already closed");
}

void TagColours(AVFrame* frame) {
    frame->color_primaries = AVCOL_PRI_BT709;
    frame->color_trc = AVCOL_TRC_BT709;
    frame->colorspace = AVCOL_SPC_BT709;
    frame->color_range = AVCOL_RANGE_MPEG;
}

} // namespace

AVRational GridRate(double framesPerSecond) {
    if (!(framesPerSecond > 0) || !std::isfinite(framesPerSecond))
        return {60, 1};
    const double whole = std::round(framesPerSecond);
    if (std::fabs(framesPerSecond - whole) < 1e-6 * whole && whole <= INT_MAX)
        return {int(whole), 1};
    const double ntsc = std::round(framesPerSecond * 1.001);
    if (std::fabs(framesPerSecond - ntsc / 1.001) < 1e-4 * ntsc && ntsc * 1000 <= INT_MAX)
        return {int(ntsc) * 1000, 1001};
    return av_d2q(framesPerSecond, 1000000);
}

Error RecorderError(std::string message) {
    return Error(MovieRecorderErrorDomain, -1, std::move(message));
}

int64_t MovieBitRate(Codec codec, int64_t width, int64_t height, double framesPerSecond,
                     double megabitsPerSecond) {
    if (megabitsPerSecond > 0)
        return std::llround(megabitsPerSecond * 1000000);
    const double factor = codec == Codec::HEVC ? 0.06 : 0.1;
    const double bits = factor * av_q2d(GridRate(framesPerSecond)) * double(width) * double(height);
    return std::max<int64_t>(std::llround(bits), 1000000);
}

struct MovieWriter::State {
    std::unique_ptr<MovieFile> file;
    AVFormatContext* muxer = nullptr;
    CodecContext video;
    CodecContext audio;
    AVStream* videoStream = nullptr;
    AVStream* audioStream = nullptr;
    AVBufferPool* pool = nullptr;
    Packet packet;
    // The last picture sent, which the slots after it show until the next one comes.
    MovieFrame last;
    // Where a held slot costs no encoding: how many held slots repeat each picture still in the encoder,
    // oldest first. ProRes repeats the last picture's packet (kept once out); H.264 and HEVC write a skip
    // picture, after which the encoder's pictures are renumbered or its next one is an IDR.
    std::deque<int64_t> repeats;
    Packet lastPacket;
    Packet repeat;
    std::unique_ptr<SkipPictures> skips;
    bool skipping = false; // false once a picture came out that none can follow
    bool skipped = false;  // since the last picture sent, where the encoder must restart after them
    std::vector<uint8_t> renumbered;
    // Sound not yet encoded, interleaved stereo, from soundRead on; it starts at soundEncoded (frames).
    std::vector<float> sound;
    size_t soundRead = 0;
    int64_t soundEncoded = 0;
    // What the muxer has been handed, and where the next fragment is due (in slots).
    uint64_t picturesMuxed = 0;
    bool soundMuxed = false;
    int64_t soundMuxedEnd = 0; // 48 kHz frames; the AAC encoder's priming lies before 0
    bool headerWritten = false;
    int64_t nextFragment = 0;
    // The file's size at the end of the last complete fragment: what a failure leaves is cut back to it.
    int64_t fileEnd = 0;
    // Follows the fragments as they reach the file, to make a standard movie of them at the finish;
    // nothing once it could not (the movie then stays fragmented, which every reader still opens).
    std::unique_ptr<StandardMovie> standard;

    ~State() {
        standard.reset();
        if (pool)
            av_buffer_pool_uninit(&pool);
        video.reset();
        audio.reset();
        if (muxer)
            avformat_free_context(muxer);
    }

    int64_t soundFrames() const { return int64_t(sound.size() - soundRead) / 2; }
};

MovieWriter::MovieWriter(std::filesystem::path path, Format format)
    : _path(std::move(path)), _format(format), _state(std::make_unique<State>()),
      _rate(GridRate(format.framesPerSecond)) {
    _state->nextFragment = fragmentSlots();
}

MovieWriter::~MovieWriter() {
    close(false);
}

Result<std::unique_ptr<MovieWriter>> MovieWriter::make(const std::filesystem::path& path,
                                                       const Format& format) {
    RouteFFmpegLog();
    std::unique_ptr<MovieWriter> writer(new MovieWriter(path, format));
    for (auto step : {&MovieWriter::openFile, &MovieWriter::openVideo, &MovieWriter::openAudio,
                      &MovieWriter::writeHeader}) {
        Result<> result = (writer.get()->*step)();
        if (!result) {
            writer->close(true);
            return result.error();
        }
    }
    const std::string preset = writer->_encoderPreset.empty() ? "" : " preset " + writer->_encoderPreset;
    Log("MovieRecorder: ", "writing " + path.filename().string() + " with " + writer->_encoderName + preset +
                               " (" + std::to_string(format.width) + " × " + std::to_string(format.height) +
                               ")");
    return writer;
}

Result<> MovieWriter::openFile() {
    State& s = *_state;
    Result<std::unique_ptr<MovieFile>> file = MovieFile::create(_path);
    if (!file)
        return file.error();
    s.file = std::move(file.value());
    s.standard = std::make_unique<StandardMovie>(s.file->descriptor());
    if (avformat_alloc_output_context2(&s.muxer, nullptr, "mov", nullptr) < 0 || !s.muxer)
        return RecorderError("The movie file could not be created");
    s.muxer->pb = s.file->io();
    s.muxer->flags |= AVFMT_FLAG_CUSTOM_IO;
    s.packet.reset(av_packet_alloc());
    s.lastPacket.reset(av_packet_alloc());
    s.repeat.reset(av_packet_alloc());
    if (!s.packet || !s.lastPacket || !s.repeat)
        return RecorderError("The movie file could not be created");
    return {};
}

Result<> MovieWriter::openVideo() {
    State& s = *_state;
    const Codec codec = _format.codec;
    const std::string refused = "A " + NameOf(codec) + " movie of " + std::to_string(_format.width) + " × " +
                                std::to_string(_format.height) + " cannot be written";
    if (_format.width < 1 || _format.height < 1 || _format.width > INT32_MAX || _format.height > INT32_MAX ||
        av_image_check_size(unsigned(_format.width), unsigned(_format.height), 0, nullptr) < 0)
        return RecorderError(refused);
    Result<VideoEncoder> opened = OpenVideoEncoder(_format);
    if (!opened) {
        Log("MovieRecorder: ", refused + ": " + opened.error().message());
        return RecorderError(refused);
    }
    s.video = std::move(opened.value().context);
    _encoderName = std::move(opened.value().name);
    _encoderPreset = std::move(opened.value().preset);
    _pixelFormat = s.video->pix_fmt;

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
    if (!IsProRes(codec)) {
        if (Result<> skipping = setUpSkipPictures(); !skipping)
            return skipping;
    }
    // Apple's players want HEVC tagged hvc1 (parameter sets in the sample description), not hev1.
    if (codec == Codec::HEVC)
        s.videoStream->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');
    return {};
}

// Held slots of H.264 and HEVC become skip pictures where the encoder's headers allow: their parameter set
// joins the encoder's in the global header, which the muxer turns into the sample description.
Result<> MovieWriter::setUpSkipPictures() {
    State& s = *_state;
    // The encoders whose pictures after skip pictures have been seen to decode exactly once renumbered:
    // x264 where its headers say it refers to one frame (ultrafast to veryfast), and x265 where it refers
    // to the last picture only (its headers cannot say so). NVENC restarts.
    const bool lastPictureOnly = _encoderName == "libx264" ||
                                 (_encoderName == "libx265" && X265RefersToLastPictureOnly(_encoderPreset));
    Result<std::unique_ptr<SkipPictures>> made = SkipPictures::make(
        s.video->codec_id, s.video->extradata, size_t(std::max(0, s.video->extradata_size)), lastPictureOnly);
    // An IDR after skip pictures costs x265 several times what a picture that refers to the one before does,
    // more than encoding the held slots.
    if (made && made.value()->restartsEncoder() && _encoderName == "libx265")
        made = RecorderError("x265 would have to start afresh after them");
    if (!made) {
        Log("MovieRecorder: ", _path.filename().string() + ": held slots are encoded again, as " +
                                   _encoderName + "'s pictures cannot be skipped: " + made.error().message());
        return {};
    }
    AVCodecParameters* p = s.videoStream->codecpar;
    const std::vector<uint8_t>& set = made.value()->parameterSet();
    const size_t size = size_t(p->extradata_size) + set.size();
    auto* extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!extradata)
        return RecorderError("The movie file could not be set up");
    std::memcpy(extradata, p->extradata, size_t(p->extradata_size));
    std::memcpy(extradata + p->extradata_size, set.data(), set.size());
    av_free(p->extradata);
    p->extradata = extradata;
    p->extradata_size = int(size);
    s.skips = std::move(made).value();
    s.skipping = true;
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
            std::string("the sound encoder ") + codec->name + " did not open: " + FFmpegErrorText(result));
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
    // The movie's own clock as fine as the common frame rates' grids (a slot of 24, 25, 30, 50, 60, 29.97
    // or 59.94 frames a second is a whole number of its ticks), so that edit lists fall on slots rather
    // than on whole milliseconds.
    av_dict_set(&options, "movie_timescale", "60000", 0);
    // The timecode of time 0, which FFmpeg writes as a QuickTime timecode track tied to the pictures':
    // every movie of a take starts at the same time of day, so that an editor lines them up by it.
    if (_format.timeOfDay >= 0) {
        AVTimecode timecode;
        const bool drop = _rate.den == 1001 && (_rate.num == 30000 || _rate.num == 60000);
        const auto frames = int(std::floor(_format.timeOfDay * av_q2d(_rate)));
        char text[AV_TIMECODE_STR_SIZE];
        if (av_timecode_init(&timecode, _rate,
                             AV_TIMECODE_FLAG_24HOURSMAX | (drop ? AV_TIMECODE_FLAG_DROPFRAME : 0), 0,
                             nullptr) >= 0)
            av_dict_set(&s.muxer->metadata, "timecode", av_timecode_make_string(&timecode, text, frames), 0);
    }
    av_dict_set(&options, "movflags", MovieFlags, 0);
    int result = avformat_write_header(s.muxer, &options);
    av_dict_free(&options);
    if (result >= 0) {
        const int64_t flushed = s.file->flush();
        result = flushed < 0 ? int(flushed) : 0;
    }
    if (result < 0) {
        Log("MovieRecorder: ",
            "cannot write the header of " + _path.string() + ": " + FFmpegErrorText(result));
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
        Log("MovieRecorder: ", _path.string() + ": " + what + ": " + FFmpegErrorText(code));
        _failure = std::make_unique<Error>(RecorderError(what + ": " + FFmpegErrorText(code)));
    }
    return *_failure;
}

Result<> MovieWriter::appendFrame(MovieFrame frame, int64_t slot) {
    if (_failure)
        return *_failure;
    if (!_state)
        return Closed();
    if (!frame || frame->format != _pixelFormat || frame->width != _format.width ||
        frame->height != _format.height)
        return RecorderError("A picture of another format or size cannot be written to this movie");
    if (slot < _nextSlot)
        return RecorderError("A picture cannot be written at or before the time of the last one");
    if (Result<> held = holdUntil(slot); !held)
        return held;
    TagColours(frame.get());
    _state->last = std::move(frame);
    if (Result<> sent = encodeVideo(_state->last.get(), slot); !sent)
        return sent;
    ++_framesWritten;
    return receiveVideoPackets();
}

Result<> MovieWriter::holdUntil(int64_t slot) {
    if (_failure)
        return *_failure;
    if (!_state)
        return Closed();
    State& s = *_state;
    if (slot > _nextSlot && !s.last) {
        s.last = blackFrame();
        if (!s.last)
            return fail("The movie could not be written", AVERROR(ENOMEM));
    }
    while (_nextSlot < slot) {
        Result<> held;
        if (repeatsPictures() && _nextSlot > 0) {
            // A held slot repeats the last picture without encoding it again, which would cost most of
            // what a new one does (all of it for ProRes): once its packet is out of the encoder.
            if (!s.repeats.empty())
                ++s.repeats.back();
            else
                held = muxRepeat(_nextSlot);
            s.skipped = s.skipping && s.skips->restartsEncoder();
            ++_nextSlot;
        } else {
            // The encoder takes a reference of its own each time, so one frame serves every slot it holds.
            held = encodeVideo(s.last.get(), _nextSlot);
            if (held)
                held = receiveVideoPackets();
        }
        if (!held)
            return held;
        ++_framesHeld;
    }
    return {};
}

MovieFrame MovieWriter::blackFrame() {
    MovieFrame frame = makeFrame();
    if (!frame)
        return nullptr;
    ptrdiff_t lines[4];
    for (int i = 0; i < 4; ++i)
        lines[i] = frame->linesize[i];
    if (av_image_fill_black(frame->data, lines, _pixelFormat, AVCOL_RANGE_MPEG, frame->width, frame->height) <
        0)
        return nullptr;
    // Before its source comes, a movie with transparency is clear rather than black.
    if (_pixelFormat == AV_PIX_FMT_YUVA444P10LE)
        for (int y = 0; y < frame->height; ++y)
            std::memset(frame->data[3] + ptrdiff_t(y) * frame->linesize[3], 0, size_t(frame->width) * 2);
    return frame;
}

bool MovieWriter::repeatsPictures() const {
    return IsProRes(_format.codec) || _state->skipping;
}

Result<> MovieWriter::muxRepeat(int64_t slot) {
    State& s = *_state;
    if (s.skips) {
        std::vector<uint8_t> picture = s.skips->next();
        if (av_new_packet(s.repeat.get(), int(picture.size())) < 0)
            return fail("The movie could not be written", AVERROR(ENOMEM));
        std::memcpy(s.repeat->data, picture.data(), picture.size());
    } else if (av_packet_ref(s.repeat.get(), s.lastPacket.get()) < 0) {
        return fail("The movie could not be written", AVERROR(ENOMEM));
    }
    return muxVideoPacket(s.repeat.get(), slot);
}

Result<> MovieWriter::encodeVideo(AVFrame* frame, int64_t slot) {
    State& s = *_state;
    if (frame) {
        frame->pts = slot;
        // Skip pictures went out since the encoder's last picture, numbered after it, and its pictures
        // cannot be renumbered to follow them: it must start afresh.
        frame->pict_type = s.skipped ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
        s.skipped = false;
    }
    const int result = avcodec_send_frame(s.video.get(), frame);
    if (result < 0)
        return fail("The movie could not be written", result);
    if (frame) {
        _nextSlot = slot + 1;
        if (repeatsPictures())
            s.repeats.push_back(0);
    }
    return {};
}

// Hands every packet that the encoder has ready to the muxer, each lasting one slot, and cuts a fragment
// at each second of pictures handed over.
Result<> MovieWriter::receiveVideoPackets() {
    State& s = *_state;
    for (;;) {
        const int result = avcodec_receive_packet(s.video.get(), s.packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return {};
        if (result < 0)
            return fail("The movie could not be written", result);
        const int64_t slot = s.packet->pts;
        int64_t repeats = 0;
        if (!s.repeats.empty()) {
            repeats = s.repeats.front();
            s.repeats.pop_front();
        }
        if (s.skips) {
            const bool followed = s.skips->follow(s.packet->data, size_t(s.packet->size), s.renumbered);
            if (!s.renumbered.empty()) {
                const int grown = int(s.renumbered.size()) - s.packet->size;
                if (av_packet_make_writable(s.packet.get()) < 0 ||
                    (grown > 0 && av_grow_packet(s.packet.get(), grown) < 0))
                    return fail("The movie could not be written", AVERROR(ENOMEM));
                if (grown < 0)
                    av_shrink_packet(s.packet.get(), int(s.renumbered.size()));
                std::memcpy(s.packet->data, s.renumbered.data(), s.renumbered.size());
            }
            if (!followed && s.skipping) {
                // Skip pictures after this one would show an older picture: later held slots are encoded
                // again (those already counted against it show the last picture the encoder kept).
                Log("MovieRecorder: ",
                    _path.filename().string() + ": held slots are encoded again from slot " +
                        std::to_string(slot) + ", as " + _encoderName + "'s picture there cannot be skipped");
                s.skipping = false;
            }
        } else if (IsProRes(_format.codec)) {
            av_packet_unref(s.lastPacket.get());
            if (av_packet_ref(s.lastPacket.get(), s.packet.get()) < 0)
                return fail("The movie could not be written", AVERROR(ENOMEM));
        }
        if (Result<> muxed = muxVideoPacket(s.packet.get(), slot); !muxed)
            return muxed;
        for (int64_t i = 1; i <= repeats; ++i) {
            if (Result<> muxed = muxRepeat(slot + i); !muxed)
                return muxed;
        }
    }
}

Result<> MovieWriter::muxVideoPacket(AVPacket* packet, int64_t slot) {
    State& s = *_state;
    packet->pts = packet->dts = slot;
    packet->duration = 1;
    if (Result<> muxed = muxPacket(packet, s.video.get(), s.videoStream); !muxed)
        return muxed;
    ++s.picturesMuxed;
    if (int64_t(s.picturesMuxed) >= s.nextFragment) {
        if (Result<> cut = cutFragment(); !cut)
            return cut;
        s.nextFragment += fragmentSlots();
    }
    return {};
}

// A fragment is cut at every second (by default) of pictures that reach the muxer, so that a movie cut
// short by a crash, a kill or a full disk loses that and what the encoder still holds, no more. The
// encoder is kept from holding more than a quarter of a second (see EncoderLatency).
int64_t MovieWriter::fragmentSlots() const {
    const double seconds = _format.fragmentSeconds > 0 ? _format.fragmentSeconds : 1;
    return std::max<int64_t>(1, int64_t(std::ceil(seconds * av_q2d(_rate))));
}

Result<> MovieWriter::cutFragment() {
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
    if (s.picturesMuxed == _framesInFile || (s.audio && !s.soundMuxed))
        return {};
    // The first call writes the header alone, which waited for this moment; the fragment follows.
    for (int calls = s.headerWritten ? 1 : 2; calls > 0; --calls)
        av_write_frame(s.muxer, nullptr);
    s.headerWritten = true;
    const int64_t size = s.file->flush();
    if (size < 0)
        return fail("The movie could not be written", int(size));
    s.fileEnd = size;
    _framesInFile = s.picturesMuxed;
    _soundInFile = std::max<int64_t>(s.soundMuxedEnd, 0);
    followFragments();
    return {};
}

void MovieWriter::followFragments() {
    State& s = *_state;
    if (!s.standard)
        return;
    if (Result<> followed = s.standard->follow(s.fileEnd); !followed) {
        Log("MovieRecorder: ",
            _path.filename().string() + " stays fragmented: " + followed.error().message());
        s.standard.reset();
    }
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
        const int result = avcodec_receive_packet(s.audio.get(), s.packet.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return {};
        if (result < 0)
            return fail("The movie could not be written", result);
        const int64_t end = s.packet->pts + s.packet->duration;
        if (Result<> muxed = muxPacket(s.packet.get(), s.audio.get(), s.audioStream); !muxed)
            return muxed;
        s.soundMuxed = true;
        s.soundMuxedEnd = end;
    }
}

Result<> MovieWriter::muxPacket(AVPacket* packet, AVCodecContext* encoder, AVStream* stream) {
    State& s = *_state;
    packet->stream_index = stream->index;
    av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
    int result = av_write_frame(s.muxer, packet);
    av_packet_unref(packet);
    if (result >= 0)
        result = s.file->io()->error;
    return result < 0 ? fail("The movie could not be written", result) : Result<>();
}

Result<> MovieWriter::finish(int64_t endSlot) {
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
    Result<> result = holdUntil(std::max(endSlot, _nextSlot));
    if (result && s.audio) {
        // The sound ends with the pictures: what is buffered past the end is dropped, and a track that
        // falls short is made up with silence, so that every track of the movie lasts as long.
        const int64_t end = av_rescale_q(_nextSlot, av_inv_q(_rate), AVRational{1, SoundRate});
        const int64_t excess =
            std::clamp<int64_t>(s.soundEncoded + s.soundFrames() - end, 0, s.soundFrames());
        s.sound.resize(s.sound.size() - size_t(2 * excess));
        if (_soundPosition < end)
            result = appendSound(nullptr, end - _soundPosition, _soundPosition);
        if (result)
            result = encodeSound(true);
    }
    if (result)
        result = encodeVideo(nullptr, 0);
    if (result)
        result = receiveVideoPackets();
    if (result) {
        const int trailer = av_write_trailer(s.muxer);
        const int64_t end = trailer < 0 ? trailer : s.file->sync();
        if (end < 0) {
            result = fail("The movie could not be finished", int(end));
        } else {
            _framesInFile = s.picturesMuxed;
            _soundInFile = std::max<int64_t>(s.soundMuxedEnd, 0);
            s.fileEnd = end;
            makeStandard();
        }
    }
    close(false);
    return result;
}

// The finished movie, complete and synced as it is, becomes a standard one. That fails only where the
// disk fails, and then the movie stays fragmented: still whole, so not a failure of the take.
void MovieWriter::makeStandard() {
    followFragments();
    State& s = *_state;
    if (!s.standard)
        return;
    Result<> made = s.standard->appendStandardHeader();
    if (made)
        made = s.standard->hideFragments();
    if (!made)
        Log("MovieRecorder: ", _path.filename().string() + " stays fragmented: " + made.error().message());
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
    if (!remove && _failure && _state->file)
        _state->file->cutBackTo(_state->fileEnd);
    const bool created = _state->file != nullptr;
    _state.reset();
    if (remove && created)
        ::unlink(_path.c_str());
}

} // namespace quorva
