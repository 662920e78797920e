#pragma once

#include "core/MovieWriter.h"
#include "platform/FrameFormat.h"
#include "platform/Error.h"
#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/Texture.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace quorva {

// The layout a movie's pictures want, in the writer's own arrangement of planes.
FrameFormat FrameFormatOf(const MovieWriter& writer);

// The pass that turns a source texture into a movie's picture in one GPU dispatch: fitted inside the
// picture without distortion and centred, the bars around it black (clear where `transparentBars`), the
// texture mirrored top to bottom when `flipped` (stored bottom-up), and converted to the picture's pixel
// format straight into host-visible memory, so that the encoder reads what the GPU wrote, uncopied.
class FrameConverter {
public:
    using Completion = std::function<void(std::shared_ptr<FrameMemory> memory)>;

    static Result<std::unique_ptr<FrameConverter>> make(std::shared_ptr<CommandQueue> queue);
    ~FrameConverter();
    FrameConverter(const FrameConverter&) = delete;
    FrameConverter& operator=(const FrameConverter&) = delete;

    // Records and commits the pass without waiting; `completion` gets the memory on the GPU's completion
    // thread once the picture is in it. Refused (and `completion` never called) when memory or the GPU
    // fails.
    Result<> convert(const std::shared_ptr<Texture>& texture, bool flipped, bool transparentBars,
                     const FrameFormat& format, Completion completion);

    // Makes the pool's first memory for pictures of `format`: fails when there is none to be had.
    Result<> prepare(const FrameFormat& format);
    // Lets go of idle memory; memory still held goes when its holder lets go.
    void forgetPool();

private:
    struct State;
    explicit FrameConverter(std::shared_ptr<State> state);
    std::shared_ptr<State> _state;
};

} // namespace quorva
