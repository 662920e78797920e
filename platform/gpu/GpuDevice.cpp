#include "platform/gpu/GpuDevice.h"

#include "platform/Log.h"
#include "platform/gpu/Texture.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace quorva {

std::string GpuErrorDomain() {
    return std::string(ApplicationIdentifier) + ".GPU";
}

Error GpuError(std::string message) {
    return Error(GpuErrorDomain(), -1, std::move(message));
}

namespace {

int Rank(vk::PhysicalDeviceType type) {
    switch (type) {
    case vk::PhysicalDeviceType::eDiscreteGpu:
        return 0;
    case vk::PhysicalDeviceType::eIntegratedGpu:
        return 1;
    case vk::PhysicalDeviceType::eVirtualGpu:
        return 2;
    case vk::PhysicalDeviceType::eOther:
        return 3;
    case vk::PhysicalDeviceType::eCpu:
        return 4;
    }
    return 5;
}

bool ContainsIgnoringCase(std::string_view text, std::string_view part) {
    auto lower = [](char c) { return char(std::tolower(static_cast<unsigned char>(c))); };
    auto found = std::search(text.begin(), text.end(), part.begin(), part.end(),
                             [&](char a, char b) { return lower(a) == lower(b); });
    return found != text.end();
}

std::optional<uint32_t> GraphicsQueueFamily(const vk::raii::PhysicalDevice& device) {
    auto families = device.getQueueFamilyProperties();
    for (uint32_t i = 0; i < families.size(); ++i) {
        if (families[i].queueFlags & vk::QueueFlagBits::eGraphics)
            return i;
    }
    return std::nullopt;
}

bool IsUsable(const vk::raii::PhysicalDevice& device) {
    if (device.getProperties().apiVersion < VK_API_VERSION_1_3 || !GraphicsQueueFamily(device))
        return false;
    auto features = device.getFeatures2<vk::PhysicalDeviceFeatures2, vk::PhysicalDeviceVulkan12Features,
                                        vk::PhysicalDeviceVulkan13Features>();
    if (!features.get<vk::PhysicalDeviceVulkan12Features>().timelineSemaphore ||
        !features.get<vk::PhysicalDeviceVulkan13Features>().dynamicRendering ||
        !features.get<vk::PhysicalDeviceVulkan13Features>().synchronization2)
        return false;
    auto extensions = device.enumerateDeviceExtensionProperties();
    return std::any_of(extensions.begin(), extensions.end(), [](const vk::ExtensionProperties& extension) {
        return std::string_view(extension.extensionName.data()) == VK_KHR_PUSH_DESCRIPTOR_EXTENSION_NAME;
    });
}

vk::raii::Device MakeDevice(const vk::raii::PhysicalDevice& physicalDevice, uint32_t queueFamily) {
    float priority = 1.0f;
    vk::DeviceQueueCreateInfo queueInfo({}, queueFamily, 1, &priority);
    const char* extensions[] = {VK_KHR_PUSH_DESCRIPTOR_EXTENSION_NAME};
    vk::StructureChain<vk::DeviceCreateInfo, vk::PhysicalDeviceVulkan12Features,
                       vk::PhysicalDeviceVulkan13Features>
        chain;
    chain.get<vk::DeviceCreateInfo>().setQueueCreateInfos(queueInfo).setPEnabledExtensionNames(extensions);
    chain.get<vk::PhysicalDeviceVulkan12Features>().setTimelineSemaphore(true);
    chain.get<vk::PhysicalDeviceVulkan13Features>().setDynamicRendering(true).setSynchronization2(true);
    return vk::raii::Device(physicalDevice, chain.get<vk::DeviceCreateInfo>());
}

vk::raii::Semaphore MakeTimeline(const vk::raii::Device& device) {
    vk::StructureChain<vk::SemaphoreCreateInfo, vk::SemaphoreTypeCreateInfo> chain;
    chain.get<vk::SemaphoreTypeCreateInfo>()
        .setSemaphoreType(vk::SemaphoreType::eTimeline)
        .setInitialValue(0);
    return vk::raii::Semaphore(device, chain.get<vk::SemaphoreCreateInfo>());
}

vk::raii::Sampler MakeLinearSampler(const vk::raii::Device& device) {
    vk::SamplerCreateInfo info;
    info.setMagFilter(vk::Filter::eLinear)
        .setMinFilter(vk::Filter::eLinear)
        .setMipmapMode(vk::SamplerMipmapMode::eNearest)
        .setAddressModeU(vk::SamplerAddressMode::eClampToEdge)
        .setAddressModeV(vk::SamplerAddressMode::eClampToEdge)
        .setAddressModeW(vk::SamplerAddressMode::eClampToEdge)
        .setMaxLod(0.0f);
    return vk::raii::Sampler(device, info);
}

// The one Vulkan instance of the process, made on first use and never destroyed: drivers are not
// unloaded and loaded again with every device, and Mesa's keep once-only allocations in globals that
// would be lost (and reported as leaks) if their library went away.
struct VulkanInstance {
    vk::raii::Context context;
    vk::raii::Instance instance;
};

Result<const vk::raii::Instance*> SharedInstance() {
    static const Result<VulkanInstance*> shared = []() -> Result<VulkanInstance*> {
        try {
            vk::raii::Context context;
            vk::ApplicationInfo application("QuorvaRecorder", 1, "QuorvaRecorder", 1, VK_API_VERSION_1_3);
            vk::raii::Instance instance(context, vk::InstanceCreateInfo({}, &application));
            return new VulkanInstance{std::move(context), std::move(instance)};
        } catch (const std::exception& exception) {
            return GpuError(std::string("Vulkan could not be started: ") + exception.what());
        }
    }();
    if (!shared)
        return shared.error();
    return &shared.value()->instance;
}

vk::raii::CommandBuffer MakeCommandBuffer(const vk::raii::Device& device, const vk::raii::CommandPool& pool) {
    vk::raii::CommandBuffers buffers(
        device, vk::CommandBufferAllocateInfo(*pool, vk::CommandBufferLevel::ePrimary, 1));
    return std::move(buffers.front());
}

} // namespace

std::optional<size_t> ChooseGpu(const std::vector<GpuCandidate>& candidates, std::string_view wanted) {
    std::optional<size_t> best;
    for (size_t i = 0; i < candidates.size(); ++i) {
        const GpuCandidate& candidate = candidates[i];
        if (!candidate.usable)
            continue;
        if (!wanted.empty()) {
            if (ContainsIgnoringCase(candidate.name, wanted))
                return i;
            continue;
        }
        if (!best || Rank(candidate.type) < Rank(candidates[*best].type))
            best = i;
    }
    return best;
}

Result<std::shared_ptr<GpuDevice>> GpuDevice::make() {
    Result<const vk::raii::Instance*> instance = SharedInstance();
    if (!instance)
        return instance.error();
    try {
        vk::raii::PhysicalDevices physicalDevices(*instance.value());
        std::vector<GpuCandidate> candidates;
        for (const auto& physicalDevice : physicalDevices) {
            auto properties = physicalDevice.getProperties();
            candidates.push_back(
                {properties.deviceName.data(), properties.deviceType, IsUsable(physicalDevice)});
        }
        const char* wanted = std::getenv("QUORVA_VULKAN_DEVICE");
        std::optional<size_t> chosen = ChooseGpu(candidates, wanted ? wanted : "");
        if (!chosen) {
            std::string message =
                wanted && *wanted ? "No usable Vulkan device is named like \"" + std::string(wanted) + "\""
                                  : std::string("No Vulkan 1.3 device with dynamic rendering was found");
            for (const GpuCandidate& candidate : candidates)
                message += (&candidate == &candidates.front() ? " (devices: " : ", ") + candidate.name;
            if (!candidates.empty())
                message += ")";
            return GpuError(message);
        }
        vk::raii::PhysicalDevice physicalDevice = std::move(physicalDevices[*chosen]);
        uint32_t family = *GraphicsQueueFamily(physicalDevice);
        auto device =
            std::shared_ptr<GpuDevice>(new GpuDevice(*instance.value(), std::move(physicalDevice), family));
        Log("GPU: ", "using " + device->name());
        return device;
    } catch (const std::exception& exception) {
        return GpuError(std::string("The Vulkan device could not be opened: ") + exception.what());
    }
}

GpuDevice::GpuDevice(const vk::raii::Instance& instance, vk::raii::PhysicalDevice physicalDevice,
                     uint32_t queueFamily)
    : _instance(instance), _physicalDevice(std::move(physicalDevice)), _queueFamily(queueFamily),
      _name(_physicalDevice.getProperties().deviceName.data()),
      _type(_physicalDevice.getProperties().deviceType),
      _maximumTextureSize(_physicalDevice.getProperties().limits.maxImageDimension2D),
      _memoryProperties(_physicalDevice.getMemoryProperties()),
      _device(MakeDevice(_physicalDevice, queueFamily)), _queue(_device, queueFamily, 0),
      _timeline(MakeTimeline(_device)), _linearSampler(MakeLinearSampler(_device)),
      _executePool(_device,
                   vk::CommandPoolCreateInfo(vk::CommandPoolCreateFlagBits::eTransient, queueFamily)),
      _executeCommands(MakeCommandBuffer(_device, _executePool)) {}

GpuDevice::~GpuDevice() {
    // Whatever is still in flight must finish before the objects it uses are destroyed.
    try {
        _device.waitIdle();
    } catch (const std::exception& exception) {
        Log("GPU: ", std::string("The device did not finish its work: ") + exception.what());
    }
}

std::optional<uint32_t> GpuDevice::memoryType(uint32_t allowedTypes,
                                              vk::MemoryPropertyFlags properties) const {
    for (uint32_t i = 0; i < _memoryProperties.memoryTypeCount; ++i) {
        if ((allowedTypes & (1u << i)) &&
            (_memoryProperties.memoryTypes[i].propertyFlags & properties) == properties)
            return i;
    }
    return std::nullopt;
}

Result<std::shared_ptr<Texture>> GpuDevice::makeTexture(uint32_t width, uint32_t height) {
    return Texture::make(shared_from_this(), width, height);
}

Result<uint64_t> GpuDevice::submit(vk::CommandBuffer commands) {
    std::lock_guard lock(_queueLock);
    uint64_t value = _submitted + 1;
    vk::CommandBufferSubmitInfo commandInfo(commands);
    vk::SemaphoreSubmitInfo signal(*_timeline, value, vk::PipelineStageFlagBits2::eAllCommands);
    try {
        _queue.submit2(vk::SubmitInfo2({}, {}, commandInfo, signal));
    } catch (const std::exception& exception) {
        return GpuError(std::string("The GPU refused the commands: ") + exception.what());
    }
    _submitted = value;
    return value;
}

Result<void> GpuDevice::waitUntilCompleted(uint64_t value) const {
    vk::Semaphore timeline = *_timeline;
    try {
        if (_device.waitSemaphores(vk::SemaphoreWaitInfo({}, timeline, value), UINT64_MAX) !=
            vk::Result::eSuccess)
            return GpuError("The GPU did not complete the commands");
    } catch (const std::exception& exception) {
        return GpuError(std::string("The GPU failed: ") + exception.what());
    }
    return {};
}

Result<void> GpuDevice::execute(const std::function<void(const vk::raii::CommandBuffer&)>& record) {
    std::lock_guard lock(_executeLock);
    try {
        _executePool.reset();
        _executeCommands.begin(vk::CommandBufferBeginInfo(vk::CommandBufferUsageFlagBits::eOneTimeSubmit));
        record(_executeCommands);
        _executeCommands.end();
    } catch (const std::exception& exception) {
        return GpuError(std::string("The GPU commands could not be recorded: ") + exception.what());
    }
    Result<uint64_t> submitted = submit(*_executeCommands);
    if (!submitted)
        return submitted.error();
    // The pool is reset by the next call, so the commands must be done before the lock is let go.
    return waitUntilCompleted(submitted.value());
}

} // namespace quorva
