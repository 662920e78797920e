#pragma once

#include "platform/Error.h"
#include "platform/gpu/GpuDevice.h"

#include <memory>
#include <thread>

namespace quorva {

class CommandBuffer;
struct CommandQueueState;

// Hands out command buffers and, once the GPU has completed one, calls its completion handlers on the
// queue's completion thread, in the order the buffers were committed. Any thread may ask for command
// buffers and commit them at the same time as others.
class CommandQueue {
public:
    static Result<std::shared_ptr<CommandQueue>> make(std::shared_ptr<GpuDevice> device);

    // Waits for the committed command buffers and calls their handlers before it returns; a command
    // buffer committed afterwards is refused.
    ~CommandQueue();
    CommandQueue(const CommandQueue&) = delete;
    CommandQueue& operator=(const CommandQueue&) = delete;

    const std::shared_ptr<GpuDevice>& device() const;

    // A new command buffer, ready to record.
    Result<std::shared_ptr<CommandBuffer>> commandBuffer();

private:
    explicit CommandQueue(std::shared_ptr<CommandQueueState> state);

    std::shared_ptr<CommandQueueState> _state;
    std::thread _completionThread;
};

} // namespace quorva
