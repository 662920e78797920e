#pragma once

#include "core/source/SoundSource.h"
#include "platform/Error.h"
#include "sources/PipeWireConnection.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

namespace quorva {

// What the computer itself plays: a PipeWire capture stream of the default output's monitor, so every
// program's sound is heard as it goes to the speakers (which keep playing it), at the graph's rate. Silence
// before the first sound heard is skipped; from the first sound on every block is delivered, silent or
// not, so that the sound stays continuous.
//
// Threads: the sound handler runs on the connection's PipeWire thread. Start and stop are called on one
// other thread, never the PipeWire thread, for both wait for it: a start up to two seconds while the
// stream is linked. By default the connection is one of its own, whose thread no video source shares,
// so that converting pictures never holds up the capture.
class ComputerSound final : public SoundSource {
public:
    explicit ComputerSound(std::shared_ptr<PipeWireConnection> connection = PipeWireConnection::make());
    ~ComputerSound() override;
    ComputerSound(const ComputerSound&) = delete;
    ComputerSound& operator=(const ComputerSound&) = delete;

    // Succeeds at once when already capturing. Fails, with nothing left behind, when there is no PipeWire
    // daemon or no sound output to listen to.
    Result<> start() override;
    // No handler is called once it has returned; harmless when not capturing.
    void stop() override;
    SourceOutput& output() override { return _output; }

    // `frames` interleaved frames of `channels` 32-bit floats as a block of stereo sound: one channel is
    // doubled, channels past the second are dropped. Nothing when the samples cannot be sound, or when
    // `ignoreIfSilent` and the kept channels are all exactly 0.
    static std::shared_ptr<SourceSound> soundFromSamples(const float* samples, size_t frames,
                                                         uint32_t channels, double sampleRate,
                                                         bool ignoreIfSilent);

    struct Capture;

private:
    // Called on the capture's thread.
    void deliver(const float* samples, size_t frames, uint32_t channels, double sampleRate);

    SourceOutput _output;
    mutable std::mutex _lock; // guards what follows
    bool _active = false;
    bool _heardSound = false;

    const std::shared_ptr<PipeWireConnection> _connection;
    // The start's and stop's alone.
    std::unique_ptr<Capture> _capture;
};

} // namespace quorva
