#pragma once

#include "core/Layout.h"
#include "platform/gpu/CommandQueue.h"
#include "platform/gpu/RenderPipeline.h"
#include "platform/gpu/Texture.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace quorva {

// Draws the current frames of the sources into one picture on the GPU, each fitted into its rectangle
// of a Layout. The controller keeps one for the take and one for the monitor picture; both may call
// from several threads.
class Compositor {
public:
    using CompletionHandler = std::function<void(const std::shared_ptr<Texture>& target)>;

    // How many targets the ring holds: a target is drawn into again that many compositions later, so
    // whatever consumes it must be done with it by then.
    static constexpr size_t TargetCount = 4;
    // The largest side of a composed picture.
    static constexpr double MaximumSide = 16384;

    // Builds the pipeline; answers nothing, and logs why, when it cannot.
    static std::shared_ptr<Compositor> make(std::shared_ptr<CommandQueue> queue);

    Compositor(const Compositor&) = delete;
    Compositor& operator=(const Compositor&) = delete;

    // The target of the current ring slot (made anew when the slot is empty or of another size), and
    // the ring moves on. Nothing when the texture cannot be made.
    std::shared_ptr<Texture> targetOfWidth(uint32_t width, uint32_t height);

    // Draws `textures[i]` (nothing for no picture) into `layout.frames()[i]`, upside down where
    // `flipped[i]` (the texture is stored bottom-up), over a clear background when `transparent`, else
    // over opaque black with every drawn pixel opaque. Answers the target without waiting for the GPU;
    // `completionHandler` gets it on the GPU's completion thread once it is drawn. Answers nothing, and
    // draws nothing, when the lists do not match the layout, the picture is empty or larger than
    // MaximumSide either way, or the GPU refuses.
    std::shared_ptr<Texture> compose(const Layout& layout,
                                     const std::vector<std::shared_ptr<Texture>>& textures,
                                     const std::vector<bool>& flipped, bool transparent,
                                     CompletionHandler completionHandler = {});

private:
    Compositor(std::shared_ptr<CommandQueue> queue, std::shared_ptr<RenderPipeline> pipeline);
    std::shared_ptr<Texture> nextTarget(uint32_t width, uint32_t height); // with _lock held

    std::shared_ptr<CommandQueue> _queue;
    std::shared_ptr<RenderPipeline> _pipeline;
    std::mutex _lock; // makes each composition, ring slot included, atomic
    std::array<std::shared_ptr<Texture>, TargetCount> _targets;
    size_t _next = 0;
};

} // namespace quorva
