#include "platform/gpu/GpuDevice.h"

#include "platform/Log.h"
#include "platform/gpu/Texture.h"

#include <algorithm>
#include <array>
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

bool OffersSwapChains(const vk::raii::PhysicalDevice& device) {
    auto extensions = device.enumerateDeviceExtensionProperties();
    return std::any_of(extensions.begin(), extensions.end(), [](const vk::ExtensionProperties& extension) {
        return std::string_view(extension.extensionName.data()) == VK_KHR_SWAPCHAIN_EXTENSION_NAME;
    });
}

vk::raii::Device MakeDevice(const vk::raii::PhysicalDevice& physicalDevice, uint32_t queueFamily,
                            bool swapChains) {
    float priority = 1.0f;
    vk::DeviceQueueCreateInfo queueInfo({}, queueFamily, 1, &priority);
    std::vector<const char*> extensions = {VK_KHR_PUSH_DESCRIPTOR_EXTENSION_NAME};
    if (swapChains)
        extensions.push_back(VK_KHR_SWAPCHAIN_EXTENSION_NAME);
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
    bool surfaces; // whether windows' surfaces can be made with it
};

// The surface extensions for the window systems that the loader knows, for the monitor's window. A
// machine without them (a server, a test run without a display) still draws and records.
std::vector<const char*> SurfaceExtensions(const vk::raii::Context& context) {
    static constexpr const char* WindowSystems[] = {"VK_KHR_xcb_surface", "VK_KHR_xlib_surface",
                                                    "VK_KHR_wayland_surface"};
    auto offered = context.enumerateInstanceExtensionProperties();
    auto isOffered = [&](std::string_view name) {
        return std::any_of(offered.begin(), offered.end(), [&](const vk::ExtensionProperties& extension) {
            return std::string_view(extension.extensionName.data()) == name;
        });
    };
    std::vector<const char*> extensions;
    if (!isOffered(VK_KHR_SURFACE_EXTENSION_NAME))
        return extensions;
    for (const char* name : WindowSystems) {
        if (isOffered(name))
            extensions.push_back(name);
    }
    if (!extensions.empty())
        extensions.push_back(VK_KHR_SURFACE_EXTENSION_NAME);
    return extensions;
}

Result<const VulkanInstance*> SharedInstance() {
    static const Result<VulkanInstance*> shared = []() -> Result<VulkanInstance*> {
        try {
            vk::raii::Context context;
            vk::ApplicationInfo application("QuorvaRecorder", 1, "QuorvaRecorder", 1, VK_API_VERSION_1_3);
            std::vector<const char*> extensions = SurfaceExtensions(context);
            vk::raii::Instance instance(context, vk::InstanceCreateInfo({}, &application, {}, extensions));
            return new VulkanInstance{std::move(context), std::move(instance), !extensions.empty()};
        } catch (const std::exception& exception) {
            return GpuError(std::string("Vulkan could not be started: ") + exception.what());
        }
    }();
    if (!shared)
        return shared.error();
    return shared.value();
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
    Result<const VulkanInstance*> instance = SharedInstance();
    if (!instance)
        return instance.error();
    try {
        vk::raii::PhysicalDevices physicalDevices(instance.value()->instance);
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
        const bool presents = instance.value()->surfaces && OffersSwapChains(physicalDevice);
        auto device = std::shared_ptr<GpuDevice>(
            new GpuDevice(instance.value()->instance, std::move(physicalDevice), family, presents));
        Log("GPU: ", "using " + device->name());
        return device;
    } catch (const std::exception& exception) {
        return GpuError(std::string("The Vulkan device could not be opened: ") + exception.what());
    }
}

GpuDevice::GpuDevice(const vk::raii::Instance& instance, vk::raii::PhysicalDevice physicalDevice,
                     uint32_t queueFamily, bool presents)
    : _instance(instance), _physicalDevice(std::move(physicalDevice)), _queueFamily(queueFamily),
      _presents(presents), _name(_physicalDevice.getProperties().deviceName.data()),
      _type(_physicalDevice.getProperties().deviceType),
      _maximumTextureSize(_physicalDevice.getProperties().limits.maxImageDimension2D),
      _memoryProperties(_physicalDevice.getMemoryProperties()),
      _device(MakeDevice(_physicalDevice, queueFamily, presents)), _queue(_device, queueFamily, 0),
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
    return submit(commands, {}, {});
}

Result<uint64_t> GpuDevice::submit(vk::CommandBuffer commands, std::optional<vk::SemaphoreSubmitInfo> wait,
                                   std::optional<vk::SemaphoreSubmitInfo> signal) {
    std::lock_guard lock(_queueLock);
    uint64_t value = _submitted + 1;
    vk::CommandBufferSubmitInfo commandInfo(commands);
    std::array<vk::SemaphoreSubmitInfo, 2> signals = {
        vk::SemaphoreSubmitInfo(*_timeline, value, vk::PipelineStageFlagBits2::eAllCommands)};
    if (signal)
        signals[1] = *signal;
    vk::SubmitInfo2 info({}, {}, commandInfo, {});
    info.setSignalSemaphoreInfoCount(signal ? 2 : 1).setPSignalSemaphoreInfos(signals.data());
    if (wait)
        info.setWaitSemaphoreInfos(*wait);
    try {
        _queue.submit2(info);
    } catch (const std::exception& exception) {
        return GpuError(std::string("The GPU refused the commands: ") + exception.what());
    }
    _submitted = value;
    return value;
}

Result<vk::Result> GpuDevice::present(const vk::PresentInfoKHR& info) {
    std::lock_guard lock(_queueLock);
    try {
        return _queue.presentKHR(info);
    } catch (const vk::OutOfDateKHRError&) {
        return vk::Result::eErrorOutOfDateKHR;
    } catch (const std::exception& exception) {
        return GpuError(std::string("The picture could not be presented: ") + exception.what());
    }
}

Result<void> GpuDevice::waitUntilIdle() {
    std::lock_guard lock(_queueLock);
    try {
        _queue.waitIdle();
    } catch (const std::exception& exception) {
        return GpuError(std::string("The GPU failed: ") + exception.what());
    }
    return {};
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
