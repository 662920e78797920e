#pragma once

#include "platform/Error.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <vulkan/vulkan_raii.hpp>

namespace quorva {

class Texture;

// Failures of the GPU layer carry this domain.
std::string GpuErrorDomain();
Error GpuError(std::string message);

// What the choice of a device looks at, apart from the Vulkan objects, so that it can be tested alone.
struct GpuCandidate {
    std::string name;
    vk::PhysicalDeviceType type = vk::PhysicalDeviceType::eOther;
    bool usable = false; // Vulkan 1.3, a graphics queue and the features this program draws with
};

// The index of the candidate to use: the first usable one whose name contains `wanted` (ignoring case)
// when `wanted` is not empty, else the best usable one, a discrete GPU before an integrated one before
// anything else (the software driver last). Nothing when no candidate fits.
std::optional<size_t> ChooseGpu(const std::vector<GpuCandidate>& candidates, std::string_view wanted);

// The Vulkan device everything draws with: its one queue, the timeline that tells which submissions
// have completed, and a sampler that every pipeline shares. Safe to use from several threads.
class GpuDevice : public std::enable_shared_from_this<GpuDevice> {
public:
    // Opens the device that ChooseGpu picks; QUORVA_VULKAN_DEVICE, when set, names part of the wanted
    // device's name. Fails when Vulkan or a usable device is missing.
    static Result<std::shared_ptr<GpuDevice>> make();

    ~GpuDevice();
    GpuDevice(const GpuDevice&) = delete;
    GpuDevice& operator=(const GpuDevice&) = delete;

    const std::string& name() const { return _name; }
    bool isSoftware() const { return _type == vk::PhysicalDeviceType::eCpu; }
    // The largest width or height of a texture.
    uint32_t maximumTextureSize() const { return _maximumTextureSize; }

    // A new picture of that size; its contents are undefined until it is drawn into or replaced.
    Result<std::shared_ptr<Texture>> makeTexture(uint32_t width, uint32_t height);

    // Whether the monitor can present to windows with this device: the loader offered a window system's
    // surfaces and the device swap chains.
    bool presents() const { return _presents; }

    // For the rest of the GPU layer and the monitor's swap chain.
    const vk::raii::Instance& instance() const { return _instance; }
    const vk::raii::PhysicalDevice& physicalDevice() const { return _physicalDevice; }
    const vk::raii::Device& device() const { return _device; }
    uint32_t queueFamily() const { return _queueFamily; }
    vk::Sampler linearSampler() const { return *_linearSampler; }
    std::optional<uint32_t> memoryType(uint32_t allowedTypes, vk::MemoryPropertyFlags properties) const;

    // Submits recorded commands; answers the timeline value that marks their completion. The queue
    // needs external synchronisation, which this provides.
    Result<uint64_t> submit(vk::CommandBuffer commands);
    // The same, also waiting for `wait` before `commands` run (a swap chain image's acquisition) and
    // signalling `signal` once they have (for its presentation).
    Result<uint64_t> submit(vk::CommandBuffer commands, std::optional<vk::SemaphoreSubmitInfo> wait,
                            std::optional<vk::SemaphoreSubmitInfo> signal);
    // Presents on the device's queue; answers success, suboptimal or out of date (the swap chain must
    // then be made again), or the failure.
    Result<vk::Result> present(const vk::PresentInfoKHR& info);
    // Blocks until the queue has finished everything, presentations included: only then may a swap
    // chain go.
    Result<void> waitUntilIdle();
    // Blocks until the submission that answered `value` has completed on the GPU.
    Result<void> waitUntilCompleted(uint64_t value) const;
    // Records commands with `record`, submits them and waits until they have completed: for the
    // uploads and read-backs that the processor needs at once.
    Result<void> execute(const std::function<void(const vk::raii::CommandBuffer&)>& record);

private:
    GpuDevice(const vk::raii::Instance& instance, vk::raii::PhysicalDevice physicalDevice,
              uint32_t queueFamily, bool presents);

    const vk::raii::Instance& _instance; // the process's, which outlives every device
    vk::raii::PhysicalDevice _physicalDevice;
    uint32_t _queueFamily;
    bool _presents;
    std::string _name;
    vk::PhysicalDeviceType _type;
    uint32_t _maximumTextureSize;
    vk::PhysicalDeviceMemoryProperties _memoryProperties;
    vk::raii::Device _device;
    vk::raii::Queue _queue;
    vk::raii::Semaphore _timeline;
    vk::raii::Sampler _linearSampler;

    std::mutex _queueLock; // guards _queue and _submitted
    uint64_t _submitted = 0;

    std::mutex _executeLock; // guards the pool and buffer of execute()
    vk::raii::CommandPool _executePool;
    vk::raii::CommandBuffer _executeCommands;
};

} // namespace quorva
