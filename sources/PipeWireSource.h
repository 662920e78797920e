#pragma once

#include "core/source/FrameSource.h"
#include "platform/Error.h"
#include "platform/PictureEngine.h"
#include "sources/PipeWireConnection.h"

#include <memory>
#include <string>

namespace quorva {

// The pictures of one PipeWire node, received by a capture stream of its own in shared memory, in
// whichever of the raw formats the publisher offers (BGRx, BGRA, RGBx, RGBA, and YUY2, I420 and NV12 from
// cameras), at any size and rate. Each picture is converted once, upright, into a picture of the engine
// and handed over on the connection's thread. PipeWire video carries no sound. A size or format that
// changes while connected is followed picture by picture.
class PipeWireSource final : public FrameSource {
public:
    // Links a stream to `node` and waits until PipeWire has linked it and agreed a format: fails when the
    // node cannot be linked, which is how a node that is listed but cannot be reached is told apart.
    static Result<std::shared_ptr<PipeWireSource>>
    connect(const std::shared_ptr<PipeWireConnection>& connection, const PipeWireConnection::Node& node,
            const std::string& title, const std::shared_ptr<PictureEngine>& engine);
    ~PipeWireSource() override;
    PipeWireSource(const PipeWireSource&) = delete;
    PipeWireSource& operator=(const PipeWireSource&) = delete;

    std::string title() const override;
    // Pictures are handed over upright, whatever the publisher's rows.
    bool flipped() const override { return false; }
    int64_t kind() const override;
    double framesPerSecond() const override;
    // Its sound handler is never called.
    SourceOutput& output() override;
    bool hasSound() const override { return false; }
    // While the registry lists the node and the stream stands.
    bool isAlive() const override;
    // From a handler, on the connection's thread, the stream goes once the handler has returned.
    void stop() override;

    struct State;

private:
    PipeWireSource(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<State> state);

    const std::shared_ptr<PipeWireConnection> _connection;
    // Shared with the stream's callbacks, so that a stream destroyed later (after a stop from a handler)
    // still finds it.
    const std::shared_ptr<State> _state;
};

} // namespace quorva
