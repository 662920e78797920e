#pragma once

// Shared by CommandQueue and CommandBuffer only; not part of the GPU layer's interface.

#include "platform/Error.h"
#include "platform/gpu/GpuDevice.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include <vulkan/vulkan_raii.hpp>

namespace quorva {

class CommandBuffer;

// A command pool with its one buffer. Each command buffer records into a pool of its own, so threads
// never share a pool while recording; slots are reused once the GPU is done with them.
struct CommandSlot {
    vk::raii::CommandPool pool;
    vk::raii::CommandBuffer commands;
};

// What a queue's completion thread and its command buffers share. It outlives the CommandQueue object
// while anything still holds it, so that a queue let go of on its own completion thread (from a
// handler) can finish its work.
struct CommandQueueState {
    explicit CommandQueueState(std::shared_ptr<GpuDevice> device) : device(std::move(device)) {}

    Result<std::unique_ptr<CommandSlot>> takeSlot();
    void returnSlot(std::unique_ptr<CommandSlot> slot);
    Result<void> commit(std::shared_ptr<CommandBuffer> buffer, vk::CommandBuffer commands);
    void runCompletions();

    std::shared_ptr<GpuDevice> device; // first, so that it goes last

    std::mutex lock; // guards everything below
    std::condition_variable changed;
    std::deque<std::pair<uint64_t, std::shared_ptr<CommandBuffer>>> pending; // by timeline value
    std::vector<std::unique_ptr<CommandSlot>> idle;
    bool closing = false;
};

} // namespace quorva
