#include "sources/PipeWireSource.h"

#include "core/source/SourceDescription.h"
#include "platform/Log.h"
#include "platform/MediaClock.h"
#include "platform/MemoryPicture.h"
#include "platform/PicturePool.h"
#include "platform/cpu/PixelImport.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <algorithm>
#include <mutex>
#include <optional>

namespace quorva {

namespace {

const char* const LogPrefix = "PipeWire: ";
// How long PipeWire may take to link a new stream and agree its format (WirePlumber links in tens of
// milliseconds): the controller connects on the main thread, which a node that never links holds this long.
constexpr double LinkTimeout = 1;
// Pictures kept for reuse: the one being converted, the one a place shows, and those a take still encodes.
constexpr size_t KeptPictures = 4;

Error SourceError(std::string message) {
    return Error(std::string(ApplicationIdentifier) + ".PipeWire", -1, std::move(message));
}

// The layouts that the stream asks for, the publisher's choice; the first is the one that costs least.
constexpr spa_video_format Formats[] = {SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_RGBA,
                                        SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_YUY2, SPA_VIDEO_FORMAT_I420,
                                        SPA_VIDEO_FORMAT_NV12};

std::optional<cpu::PixelLayout> LayoutOf(spa_video_format format) {
    switch (format) {
    case SPA_VIDEO_FORMAT_BGRA:
        return cpu::PixelLayout::BGRA;
    case SPA_VIDEO_FORMAT_BGRx:
        return cpu::PixelLayout::BGRx;
    case SPA_VIDEO_FORMAT_RGBA:
        return cpu::PixelLayout::RGBA;
    case SPA_VIDEO_FORMAT_RGBx:
        return cpu::PixelLayout::RGBx;
    case SPA_VIDEO_FORMAT_YUY2:
        return cpu::PixelLayout::YUY2;
    case SPA_VIDEO_FORMAT_I420:
        return cpu::PixelLayout::I420;
    case SPA_VIDEO_FORMAT_NV12:
        return cpu::PixelLayout::NV12;
    default:
        return std::nullopt;
    }
}

constexpr uint32_t RoundUp(uint32_t value, uint32_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

} // namespace

struct PipeWireSource::State {
    PipeWireConnection* connection = nullptr;
    std::shared_ptr<PictureEngine> engine;
    std::string title;
    uint32_t node = 0;

    // On the connection's thread, or under its loop's lock.
    pw_stream* stream = nullptr;
    pw_stream_state streamState = PW_STREAM_STATE_UNCONNECTED;
    std::optional<cpu::PixelLayout> layout;
    uint32_t width = 0, height = 0;
    bool bt709 = false;
    bool unreadableLogged = false;
    PicturePool<MemoryPicture> pool{KeptPictures};
    SourceOutput output;

    mutable std::mutex lock; // guards what follows, read on other threads
    double rate = 0;
    bool stopped = false;
    bool failed = false;

    // Under the loop's lock, never from the stream's own callback.
    void destroyStream() {
        if (!stream)
            return;
        pw_stream_destroy(stream);
        stream = nullptr;
    }

    bool linked() const {
        return layout && (streamState == PW_STREAM_STATE_PAUSED || streamState == PW_STREAM_STATE_STREAMING);
    }

    static void stateChanged(void* data, pw_stream_state, pw_stream_state state, const char* error) {
        auto* self = static_cast<State*>(data);
        self->streamState = state;
        if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
            std::lock_guard guard(self->lock);
            if (!self->failed && !self->stopped)
                Log(LogPrefix, self->title + ": the stream ended" + (error ? std::string(": ") + error : ""));
            self->failed = true;
        }
        pw_thread_loop_signal(self->connection->threadLoop(), false);
    }

    static void paramChanged(void* data, uint32_t id, const spa_pod* param) {
        auto* self = static_cast<State*>(data);
        if (id != SPA_PARAM_Format || !param)
            return;
        self->changeFormat(param);
        pw_thread_loop_signal(self->connection->threadLoop(), false);
    }

    void changeFormat(const spa_pod* param) {
        uint32_t mediaType = 0, mediaSubtype = 0;
        spa_video_info_raw info{};
        if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video ||
            mediaSubtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(param, &info) < 0 ||
            !LayoutOf(info.format) || info.size.width == 0 || info.size.height == 0) {
            layout.reset();
            return;
        }
        layout = LayoutOf(info.format);
        width = info.size.width;
        height = info.size.height;
        // Publishers that do not say follow the convention of video: BT.601 up to standard definition.
        bt709 = info.color_matrix == SPA_VIDEO_COLOR_MATRIX_BT709 ||
                (info.color_matrix == SPA_VIDEO_COLOR_MATRIX_UNKNOWN && height > 576);
        const spa_fraction fraction = info.framerate.num ? info.framerate : info.max_framerate;
        {
            std::lock_guard guard(lock);
            rate = fraction.denom ? double(fraction.num) / fraction.denom : 0;
        }
        // Pictures in memory that this process can map, and the publisher's word on which way up they are.
        // The size is what any of the layouts needs with its rows padded, for publishers that state none
        // before their first picture: GStreamer's pipewiresink of PipeWire 0.3.65 then crashes on buffers
        // of no size. A publisher that states its own size keeps it.
        const int32_t size =
            int32_t(std::min<uint64_t>(4ull * RoundUp(width, 2) * RoundUp(height, 2), INT32_MAX));
        uint8_t bytes[256];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof bytes);
        const spa_pod* params[2];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_size,
            SPA_POD_CHOICE_RANGE_Int(size, 1, INT32_MAX), SPA_PARAM_BUFFERS_dataType,
            SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
        params[1] = static_cast<const spa_pod*>(
            spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
                                       SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoTransform),
                                       SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_videotransform))));
        pw_stream_update_params(stream, params, 2);
    }

    static void process(void* data) {
        auto* self = static_cast<State*>(data);
        // Only the newest picture matters: older ones go straight back.
        pw_buffer* newest = nullptr;
        while (pw_buffer* next = pw_stream_dequeue_buffer(self->stream)) {
            if (newest)
                pw_stream_queue_buffer(self->stream, newest);
            newest = next;
        }
        if (!newest)
            return;
        self->deliver(*newest->buffer);
        pw_stream_queue_buffer(self->stream, newest);
    }

    void deliver(const spa_buffer& buffer) {
        // A picture that nobody would receive is not converted.
        if (!layout || !output.wantsFrames())
            return;
        cpu::PixelPlanes planes;
        if (!planesOf(buffer, planes)) {
            if (!unreadableLogged)
                Log(LogPrefix, title + ": a picture arrived that cannot be read (not in mapped memory, or "
                                       "smaller than its format); such pictures are left out");
            unreadableLogged = true;
            return;
        }
        const auto* transform = static_cast<const spa_meta_videotransform*>(
            spa_buffer_find_meta_data(&buffer, SPA_META_VideoTransform, sizeof(spa_meta_videotransform)));
        const bool flipped = transform && transform->transform == SPA_META_TRANSFORMATION_Flipped180;
        Result<std::shared_ptr<MemoryPicture>> picture = pool.take(width, height, MemoryPicture::make);
        if (!picture) {
            Log(LogPrefix, title + ": " + picture.error().message());
            return;
        }
        cpu::ImportPixels(*layout, planes, bt709, flipped, *picture.value());
        Result<std::shared_ptr<Picture>> adopted = engine->adopt(picture.value());
        if (!adopted) {
            Log(LogPrefix, title + ": " + adopted.error().message());
            return;
        }
        output.deliverFrame(adopted.value());
    }

    // Where each plane of the picture lies: one block of memory for each plane, or all of them one after
    // the other in the first block, as GStreamer lays them out. False when the memory is not mapped here or
    // is smaller than the picture.
    bool planesOf(const spa_buffer& buffer, cpu::PixelPlanes& planes) const {
        const int count = cpu::PlaneCount(*layout);
        uint32_t rows[3] = {height, 0, 0}, rowBytes[3] = {4 * width, 0, 0};
        switch (*layout) {
        case cpu::PixelLayout::YUY2:
            rowBytes[0] = 2 * RoundUp(width, 2);
            break;
        case cpu::PixelLayout::I420:
            rowBytes[0] = width;
            rows[1] = rows[2] = (height + 1) / 2;
            rowBytes[1] = rowBytes[2] = (width + 1) / 2;
            break;
        case cpu::PixelLayout::NV12:
            rowBytes[0] = width;
            rows[1] = (height + 1) / 2;
            rowBytes[1] = RoundUp(width, 2);
            break;
        default:
            break;
        }
        const bool separate = buffer.n_datas >= uint32_t(count);
        if (buffer.n_datas == 0)
            return false;
        uint64_t offset = 0; // within the first block, where the planes follow one another
        for (int i = 0; i < count; ++i) {
            const spa_data& block = buffer.datas[separate ? i : 0];
            if (!block.data || !block.chunk || (block.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED))
                return false;
            const int32_t given = (separate || i == 0) ? block.chunk->stride : 0;
            if (given < 0)
                return false;
            // A stride of 0 means rows packed as the format lays them out, each on a 4-byte boundary.
            const uint32_t stride = given > 0 ? uint32_t(given) : RoundUp(rowBytes[i], 4);
            if (stride < rowBytes[i])
                return false;
            const uint64_t start = uint64_t(block.chunk->offset) + (separate ? 0 : offset);
            const uint64_t end = start + uint64_t(stride) * (rows[i] - 1) + rowBytes[i];
            if (end > block.maxsize)
                return false;
            planes.data[i] = static_cast<const uint8_t*>(block.data) + start;
            planes.stride[i] = stride;
            // GStreamer starts the planes after the first at an even row count.
            offset += uint64_t(stride) * (i == 0 ? RoundUp(rows[0], 2) : rows[i]);
        }
        return true;
    }
};

Result<std::shared_ptr<PipeWireSource>>
PipeWireSource::connect(const std::shared_ptr<PipeWireConnection>& connection,
                        const PipeWireConnection::Node& node, const std::string& title,
                        const std::shared_ptr<PictureEngine>& engine) {
    auto state = std::make_shared<State>();
    state->connection = connection.get();
    state->engine = engine;
    state->title = title;
    state->node = node.id;
    std::shared_ptr<PipeWireSource> source(new PipeWireSource(connection, state));
    {
        PipeWireConnection::Lock lock(*connection);
        static const pw_stream_events Events = [] {
            pw_stream_events events{};
            events.version = PW_VERSION_STREAM_EVENTS;
            events.state_changed = State::stateChanged;
            events.param_changed = State::paramChanged;
            events.process = State::process;
            return events;
        }();
        // Its own link to the daemon, so that it ends with the stream whatever becomes of the others.
        state->stream = pw_stream_new_simple(
            connection->loop(), "QuorvaRecorder",
            pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE,
                              "Production", PW_KEY_TARGET_OBJECT, node.serial.c_str(), nullptr),
            &Events, state.get());
        if (!state->stream)
            return SourceError("No stream could be made for " + title);

        const uint32_t largest = engine->maximumPictureSize();
        spa_rectangle size{1920, 1080}, smallest{1, 1}, biggest{largest, largest};
        spa_fraction rate{30, 1}, slowest{0, 1}, fastest{1000, 1};
        uint8_t bytes[512];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof bytes);
        const spa_pod* format = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
            SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
            SPA_FORMAT_VIDEO_format,
            SPA_POD_CHOICE_ENUM_Id(8, Formats[0], Formats[0], Formats[1], Formats[2], Formats[3], Formats[4],
                                   Formats[5], Formats[6]),
            SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&size, &smallest, &biggest),
            SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&rate, &slowest, &fastest)));
        // Never linked to another node: a publisher that leaves ends the stream, and the place goes offline.
        const auto flags = pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                           PW_STREAM_FLAG_DONT_RECONNECT);
        if (pw_stream_connect(state->stream, PW_DIRECTION_INPUT, PW_ID_ANY, flags, &format, 1) < 0)
            return SourceError("The stream for " + title + " could not connect");
        const double deadline = MediaClock::now() + LinkTimeout;
        while (!state->linked() && MediaClock::now() < deadline) {
            {
                std::lock_guard guard(state->lock);
                if (state->failed)
                    break;
            }
            pw_thread_loop_timed_wait(connection->threadLoop(), 1);
        }
        if (!state->linked())
            return SourceError(title + " could not be linked");
    }
    return source;
}

PipeWireSource::PipeWireSource(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<State> state)
    : _connection(std::move(connection)), _state(std::move(state)) {}

PipeWireSource::~PipeWireSource() {
    stop();
}

std::string PipeWireSource::title() const {
    return _state->title;
}

int64_t PipeWireSource::kind() const {
    return SourceKindPipeWire;
}

double PipeWireSource::framesPerSecond() const {
    std::lock_guard guard(_state->lock);
    return _state->rate;
}

SourceOutput& PipeWireSource::output() {
    return _state->output;
}

bool PipeWireSource::isAlive() const {
    {
        std::lock_guard guard(_state->lock);
        if (_state->stopped || _state->failed)
            return false;
    }
    return _connection->hasNode(_state->node);
}

void PipeWireSource::stop() {
    _state->output.close();
    {
        std::lock_guard guard(_state->lock);
        _state->stopped = true;
    }
    if (_connection->inLoopThread()) {
        // From a handler: the stream goes once its callback has returned, and none calls a handler again.
        _connection->later([state = _state] { state->destroyStream(); });
        return;
    }
    // Callbacks run under the loop's lock: once it is held, none is running, and none will.
    PipeWireConnection::Lock lock(*_connection);
    _state->destroyStream();
}

} // namespace quorva
