#include "platform/gpu/CommandQueue.h"

#include "platform/Log.h"
#include "platform/gpu/CommandBuffer.h"
#include "platform/gpu/CommandQueueState.h"

#include <pthread.h>

namespace quorva {

namespace {

// Enough for the compositors, recorders and sources that commit at once; more would only hold memory.
constexpr size_t MaximumIdleSlots = 16;

} // namespace

Result<std::unique_ptr<CommandSlot>> CommandQueueState::takeSlot() {
    {
        std::lock_guard guard(lock);
        if (!idle.empty()) {
            auto slot = std::move(idle.back());
            idle.pop_back();
            return slot;
        }
    }
    try {
        const vk::raii::Device& vulkan = device->device();
        vk::raii::CommandPool pool(
            vulkan,
            vk::CommandPoolCreateInfo(vk::CommandPoolCreateFlagBits::eTransient, device->queueFamily()));
        vk::raii::CommandBuffers buffers(
            vulkan, vk::CommandBufferAllocateInfo(*pool, vk::CommandBufferLevel::ePrimary, 1));
        return std::make_unique<CommandSlot>(CommandSlot{std::move(pool), std::move(buffers.front())});
    } catch (const std::exception& exception) {
        return GpuError(std::string("A command buffer could not be made: ") + exception.what());
    }
}

void CommandQueueState::returnSlot(std::unique_ptr<CommandSlot> slot) {
    try {
        slot->pool.reset();
    } catch (const std::exception&) {
        return; // a pool that cannot be reset is not reused
    }
    std::lock_guard guard(lock);
    if (idle.size() < MaximumIdleSlots)
        idle.push_back(std::move(slot));
}

Result<void> CommandQueueState::commit(std::shared_ptr<CommandBuffer> buffer, vk::CommandBuffer commands) {
    // The lock is held across the submission (which only takes the device's queue lock) so that
    // `pending` stays in timeline order and nothing is submitted after the completion thread has left.
    std::lock_guard guard(lock);
    if (closing)
        return GpuError("The command queue has been closed");
    Result<uint64_t> value = device->submit(commands);
    if (!value)
        return value.error();
    pending.emplace_back(value.value(), std::move(buffer));
    changed.notify_one();
    return {};
}

void CommandQueueState::runCompletions() {
    pthread_setname_np(pthread_self(), "gpu-completion");
    std::unique_lock guard(lock);
    for (;;) {
        changed.wait(guard, [&] { return closing || !pending.empty(); });
        if (pending.empty())
            return;
        // Only this thread removes entries, so the front stays put while the lock is released.
        uint64_t value = pending.front().first;
        guard.unlock();
        Result<void> completed = device->waitUntilCompleted(value);
        if (!completed)
            Log("GPU: ", completed.error().message()); // handlers still run, so that nobody waits forever
        guard.lock();
        std::shared_ptr<CommandBuffer> buffer = std::move(pending.front().second);
        pending.pop_front();
        guard.unlock();
        buffer->complete();
        buffer.reset();
        guard.lock();
    }
}

Result<std::shared_ptr<CommandQueue>> CommandQueue::make(std::shared_ptr<GpuDevice> device) {
    auto state = std::make_shared<CommandQueueState>(std::move(device));
    try {
        return std::shared_ptr<CommandQueue>(new CommandQueue(std::move(state)));
    } catch (const std::system_error& error) {
        return GpuError(std::string("The completion thread could not be started: ") + error.what());
    }
}

CommandQueue::CommandQueue(std::shared_ptr<CommandQueueState> state)
    : _state(std::move(state)), _completionThread([state = _state] { state->runCompletions(); }) {}

CommandQueue::~CommandQueue() {
    {
        std::lock_guard guard(_state->lock);
        _state->closing = true;
    }
    _state->changed.notify_all();
    // A handler may drop the last hold on its own queue; the thread then finishes by itself.
    if (_completionThread.get_id() == std::this_thread::get_id())
        _completionThread.detach();
    else
        _completionThread.join();
}

const std::shared_ptr<GpuDevice>& CommandQueue::device() const {
    return _state->device;
}

Result<std::shared_ptr<CommandBuffer>> CommandQueue::commandBuffer() {
    Result<std::unique_ptr<CommandSlot>> slot = _state->takeSlot();
    if (!slot)
        return slot.error();
    try {
        slot.value()->commands.begin(
            vk::CommandBufferBeginInfo(vk::CommandBufferUsageFlagBits::eOneTimeSubmit));
    } catch (const std::exception& exception) {
        return GpuError(std::string("A command buffer could not be started: ") + exception.what());
    }
    return std::shared_ptr<CommandBuffer>(new CommandBuffer(_state, std::move(slot.value())));
}

} // namespace quorva
