#include "sources/ComputerSound.h"

#include "platform/Log.h"
#include "platform/MediaClock.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace quorva {

namespace {

// How long PipeWire may take to link the stream to the output's monitor and agree its format.
constexpr double LinkTimeout = 2;

Error SoundError(const std::string& message) {
    return Error(std::string(ApplicationIdentifier) + ".ComputerSound", -1, message);
}

} // namespace

// One capture, from a start to its stop: a stream on the connection's loop.
struct ComputerSound::Capture {
    Capture(ComputerSound* owner, std::shared_ptr<PipeWireConnection> connection)
        : owner(owner), connection(std::move(connection)) {}

    // The stream goes under the loop's lock, so no callback is running, and none will once it has gone.
    ~Capture() {
        PipeWireConnection::Lock lock(*connection);
        capturing = false; // a stop is no loss
        if (stream)
            pw_stream_destroy(stream);
    }

    ComputerSound* owner;
    const std::shared_ptr<PipeWireConnection> connection;
    pw_stream* stream = nullptr;
    // On the loop's thread, or under its lock.
    pw_stream_state state = PW_STREAM_STATE_UNCONNECTED;
    std::string failure;
    bool capturing = false; // once the start has succeeded
    uint32_t channels = 0;
    double rate = 0;

    // Streaming, not merely linked: a take that begins once this is true hears its very first moments.
    bool linked() const { return rate > 0 && state == PW_STREAM_STATE_STREAMING; }

    static void stateChanged(void* data, pw_stream_state, pw_stream_state state, const char* error) {
        auto* self = static_cast<Capture*>(data);
        self->state = state;
        if (state == PW_STREAM_STATE_ERROR)
            self->failure = error ? error : "the stream failed";
        // Lost mid-take (the daemon or the output went away): the take goes on without sound, and the log
        // says from when.
        if (self->capturing && (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED))
            Log("ComputerSound: ", "the capture of the computer's sound ended" +
                                       (error ? std::string(": ") + error : std::string()));
        pw_thread_loop_signal(self->connection->threadLoop(), false);
    }

    static void paramChanged(void* data, uint32_t id, const spa_pod* param) {
        auto* self = static_cast<Capture*>(data);
        if (id != SPA_PARAM_Format || !param)
            return;
        spa_audio_info_raw info{};
        if (spa_format_audio_raw_parse(param, &info) < 0 || info.format != SPA_AUDIO_FORMAT_F32) {
            self->rate = 0;
            return;
        }
        self->channels = info.channels;
        self->rate = info.rate;
        pw_thread_loop_signal(self->connection->threadLoop(), false);
    }

    static void process(void* data) {
        auto* self = static_cast<Capture*>(data);
        pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream);
        if (!buffer)
            return;
        const spa_data& block = buffer->buffer->datas[0];
        if (block.data && block.chunk && self->channels > 0) {
            const uint32_t offset = std::min(block.chunk->offset, block.maxsize);
            const uint32_t size = std::min(block.chunk->size, block.maxsize - offset);
            const auto* samples =
                reinterpret_cast<const float*>(static_cast<const uint8_t*>(block.data) + offset);
            self->owner->deliver(samples, size / (sizeof(float) * self->channels), self->channels,
                                 self->rate);
        }
        pw_stream_queue_buffer(self->stream, buffer);
    }
};

ComputerSound::ComputerSound(std::shared_ptr<PipeWireConnection> connection)
    : _connection(std::move(connection)) {}

ComputerSound::~ComputerSound() {
    stop();
}

Result<> ComputerSound::start() {
    if (_capture)
        return {};
    auto capture = std::make_unique<Capture>(this, _connection);
    {
        PipeWireConnection::Lock lock(*_connection);
        static const pw_stream_events Events = [] {
            pw_stream_events events{};
            events.version = PW_VERSION_STREAM_EVENTS;
            events.state_changed = Capture::stateChanged;
            events.param_changed = Capture::paramChanged;
            events.process = Capture::process;
            return events;
        }();
        // The default output's monitor: what the speakers are playing. Like every stream of the
        // connection, it has a link to the daemon of its own.
        capture->stream = pw_stream_new_simple(
            _connection->loop(), "QuorvaRecorder",
            pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE,
                              "Production", PW_KEY_STREAM_CAPTURE_SINK, "true", nullptr),
            &Events, capture.get());
        std::string failure;
        if (!capture->stream) {
            failure = std::string("no PipeWire daemon to connect to (") + std::strerror(errno) + ")";
        } else {
            // 32-bit float at the graph's rate, in as many channels as the output has.
            spa_audio_info_raw info{};
            info.format = SPA_AUDIO_FORMAT_F32;
            uint8_t bytes[256];
            spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof bytes);
            const spa_pod* format = spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
            const auto flags = pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS);
            if (int result =
                    pw_stream_connect(capture->stream, PW_DIRECTION_INPUT, PW_ID_ANY, flags, &format, 1);
                result < 0)
                failure = std::string("no PipeWire daemon to connect to (") + std::strerror(-result) + ")";
        }
        const double deadline = MediaClock::now() + LinkTimeout;
        while (failure.empty() && capture->failure.empty() && !capture->linked() &&
               MediaClock::now() < deadline)
            pw_thread_loop_timed_wait(_connection->threadLoop(), 1);
        if (failure.empty() && !capture->linked())
            failure = "no sound output to listen to" +
                      (capture->failure.empty() ? std::string() : " (" + capture->failure + ")");
        capture->capturing = failure.empty();
        if (!failure.empty())
            return SoundError(failure);
    }
    {
        std::lock_guard guard(_lock);
        _active = true;
        _heardSound = false;
    }
    _capture = std::move(capture);
    return {};
}

void ComputerSound::stop() {
    if (!_capture)
        return;
    {
        std::lock_guard guard(_lock);
        _active = false;
    }
    _capture.reset();
}

void ComputerSound::deliver(const float* samples, size_t frames, uint32_t channels, double sampleRate) {
    bool heard = false;
    {
        std::lock_guard guard(_lock);
        if (!_active)
            return;
        heard = _heardSound;
    }
    auto sound = soundFromSamples(samples, frames, channels, sampleRate, !heard);
    if (!sound)
        return;
    if (!heard) {
        std::lock_guard guard(_lock);
        _heardSound = true;
    }
    _output.deliverSound(sound);
}

std::shared_ptr<SourceSound> ComputerSound::soundFromSamples(const float* samples, size_t frames,
                                                             uint32_t channels, double sampleRate,
                                                             bool ignoreIfSilent) {
    if (!samples || frames == 0 || channels == 0 || !IsUsableRate(sampleRate))
        return nullptr;
    const uint32_t kept = std::min(channels, 2u);
    if (ignoreIfSilent) {
        bool silent = true;
        for (size_t frame = 0; frame < frames && silent; ++frame) {
            for (uint32_t channel = 0; channel < kept; ++channel)
                silent = silent && samples[frame * channels + channel] == 0.0f;
        }
        if (silent)
            return nullptr;
    }
    if (channels == 1)
        return SourceSound::soundWithPlanarSamples(samples, 1, frames, 0, sampleRate);
    if (channels == 2)
        return SourceSound::soundWithInterleavedStereoSamples(samples, frames, sampleRate);
    std::vector<float> stereo(2 * frames);
    for (size_t frame = 0; frame < frames; ++frame) {
        stereo[2 * frame] = samples[frame * channels];
        stereo[2 * frame + 1] = samples[frame * channels + 1];
    }
    return SourceSound::soundWithInterleavedStereoSamples(stereo.data(), frames, sampleRate);
}

} // namespace quorva
