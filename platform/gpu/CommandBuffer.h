#pragma once

#include "platform/Error.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <vulkan/vulkan_raii.hpp>

namespace quorva {

class RenderPipeline;
class Texture;
struct CommandQueueState;
struct CommandSlot;

// Commands for the GPU, recorded by one thread, then committed once. Everything it uses (target,
// textures, pipelines) is held until the GPU has completed it, so callers may let go at once.
//
// Drawing happens in passes that each clear their target first. Clip space has y pointing up: (−1, 1)
// is the target's top-left corner and texture coordinate (0, 0) the first pixel of a texture's first
// row, so positions computed with the picture's origin at the top-left map as they read.
class CommandBuffer : public std::enable_shared_from_this<CommandBuffer> {
public:
    ~CommandBuffer();
    CommandBuffer(const CommandBuffer&) = delete;
    CommandBuffer& operator=(const CommandBuffer&) = delete;

    // Starts a pass that draws into the whole of `target`, cleared to `clearColour` (red, green, blue,
    // alpha, 0 to 1).
    void beginRendering(const std::shared_ptr<Texture>& target, const std::array<float, 4>& clearColour);
    void setPipeline(const std::shared_ptr<RenderPipeline>& pipeline);
    // Push constants of the current pipeline, seen by both of its shaders.
    void setConstants(const void* bytes, uint32_t size, uint32_t offset = 0);
    // The texture that the current pipeline samples; `opaque` makes its alpha read as one.
    void setTexture(const std::shared_ptr<Texture>& texture, bool opaque = false);
    // Draws a triangle strip of `vertexCount` vertices, which the vertex shader makes from its index.
    void draw(uint32_t vertexCount);
    void endRendering();

    // Records commands that the calls above do not cover (a compute pass, a copy), outside a drawing
    // pass. `held` is kept alive until the GPU has completed this buffer.
    void record(const std::function<void(const vk::raii::CommandBuffer&)>& commands,
                std::shared_ptr<const void> held = nullptr);

    // Called on the queue's completion thread once the GPU has completed this buffer.
    void addCompletedHandler(std::function<void()> handler);

    // Sends the commands to the GPU; does not wait for them. Fails when recording went wrong (the
    // reason is kept) or the GPU refused them; the handlers are then never called.
    Result<void> commit();

private:
    friend class CommandQueue;
    friend struct CommandQueueState;

    CommandBuffer(std::shared_ptr<CommandQueueState> queue, std::unique_ptr<CommandSlot> slot);
    const vk::raii::CommandBuffer& commands() const;
    void fail(std::string reason);
    // On the completion thread: calls the handlers, lets go of what the commands used.
    void complete();

    std::shared_ptr<CommandQueueState> _queue;
    std::unique_ptr<CommandSlot> _slot;
    std::vector<std::shared_ptr<const void>> _held;
    std::vector<std::function<void()>> _handlers;
    std::shared_ptr<Texture> _target;          // during a pass
    std::shared_ptr<RenderPipeline> _pipeline; // the one last set
    std::optional<std::string> _failure;
    bool _committed = false;
};

} // namespace quorva
