#include "App/VulkanPreview.h"

#include "platform/Log.h"
#include "platform/gpu/GpuDevice.h"
#include "platform/gpu/GpuPictureEngine.h"
#include "platform/gpu/RenderPipeline.h"
#include "platform/gpu/Texture.h"

#include <QPalette>
#include <QPlatformSurfaceEvent>
#include <QVBoxLayout>
#include <QVulkanInstance>
#include <QWindow>

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quorva {

namespace {

constexpr vk::ShaderStageFlags BothStages =
    vk::ShaderStageFlagBits::eVertex | vk::ShaderStageFlagBits::eFragment;
constexpr vk::ImageSubresourceRange WholeImage(vk::ImageAspectFlagBits::eColor, 0, 1, 0, 1);

// Frames recorded while earlier ones are still on the GPU: one being drawn while the last is shown.
constexpr size_t FramesInFlight = 2;

// Pictures are stored as sRGB-encoded bytes: a UNORM target passes them to the screen as they are,
// which is what the processor's monitor does too. Any other format still shows the picture.
vk::SurfaceFormatKHR ChooseFormat(const std::vector<vk::SurfaceFormatKHR>& offered) {
    for (vk::Format wanted : {vk::Format::eB8G8R8A8Unorm, vk::Format::eR8G8B8A8Unorm}) {
        for (const vk::SurfaceFormatKHR& format : offered) {
            if (format.format == wanted && format.colorSpace == vk::ColorSpaceKHR::eSrgbNonlinear)
                return format;
        }
    }
    return offered.front();
}

// The view's timer paces the frames. Mailbox never makes the window's thread wait for the screen when
// the timer runs a little ahead of it; FIFO, which every device offers, does so only briefly.
vk::PresentModeKHR ChoosePresentMode(const std::vector<vk::PresentModeKHR>& offered) {
    bool mailbox = std::find(offered.begin(), offered.end(), vk::PresentModeKHR::eMailbox) != offered.end();
    return mailbox ? vk::PresentModeKHR::eMailbox : vk::PresentModeKHR::eFifo;
}

vk::CompositeAlphaFlagBitsKHR ChooseCompositeAlpha(vk::CompositeAlphaFlagsKHR supported) {
    for (auto alpha :
         {vk::CompositeAlphaFlagBitsKHR::eOpaque, vk::CompositeAlphaFlagBitsKHR::eInherit,
          vk::CompositeAlphaFlagBitsKHR::ePreMultiplied, vk::CompositeAlphaFlagBitsKHR::ePostMultiplied}) {
        if (supported & alpha)
            return alpha;
    }
    return vk::CompositeAlphaFlagBitsKHR::eOpaque;
}

// The native window the frames are presented in; it tells the view when it is shown and when Qt is
// about to destroy its surface (the swap chain must go first).
class PreviewWindow final : public QWindow {
public:
    PreviewWindow(std::function<void()> exposed, std::function<void()> surfaceEnding)
        : _exposed(std::move(exposed)), _surfaceEnding(std::move(surfaceEnding)) {
        setSurfaceType(QSurface::VulkanSurface);
    }

    void forget() {
        _exposed = nullptr;
        _surfaceEnding = nullptr;
    }

protected:
    void exposeEvent(QExposeEvent*) override {
        // Drawn at once rather than at the next tick, which is a tenth of a second away while limited.
        if (isExposed() && _exposed)
            _exposed();
    }

    bool event(QEvent* event) override {
        if (event->type() == QEvent::PlatformSurface && _surfaceEnding &&
            static_cast<QPlatformSurfaceEvent*>(event)->surfaceEventType() ==
                QPlatformSurfaceEvent::SurfaceAboutToBeDestroyed)
            _surfaceEnding();
        return QWindow::event(event);
    }

private:
    std::function<void()> _exposed;
    std::function<void()> _surfaceEnding;
};

// What one frame uses while the GPU draws it; reused once its submission has completed.
struct FrameSlot {
    vk::raii::CommandPool pool;
    vk::raii::CommandBuffer commands;
    vk::raii::Semaphore acquired; // signalled when its swap chain image may be drawn into
    uint64_t submitted = 0;       // the device's timeline value that marks its completion; 0: none
    std::shared_ptr<Texture> picture;
};

struct SwapChain {
    vk::raii::SwapchainKHR swapchain;
    vk::Extent2D extent;
    QSize madeFor; // the window's size in pixels when it was made
    std::vector<vk::Image> images;
    std::vector<vk::raii::ImageView> views;
    // One per image, waited for by its presentation: the image cannot be acquired again before that
    // presentation has read it, so the semaphore is free by then.
    std::vector<vk::raii::Semaphore> rendered;
};

class VulkanPreview final : public PreviewView {
public:
    VulkanPreview(std::shared_ptr<GpuPictureEngine> engine, PreviewProvider provider, WatchHandler watched,
                  bool limited, QWidget* parent)
        : PreviewView(std::move(provider), std::move(watched), limited, parent), _engine(std::move(engine)),
          _device(_engine->device()) {
        // Black wherever the window is not, and everywhere when Vulkan cannot show anything.
        QPalette black = palette();
        black.setColor(QPalette::Window, Qt::black);
        setPalette(black);
        setAutoFillBackground(true);
        if (Result<void> started = start(); !started)
            giveUp(started.error().message());
    }

    ~VulkanPreview() override {
        if (_window)
            _window->forget();
        stopDrawing();
        // The window takes its surface with it, which needs Qt's Vulkan instance, a member.
        delete _container;
    }

protected:
    void redraw() override {
        if (_broken)
            return;
        if (Result<void> drawn = draw(); !drawn)
            giveUp(drawn.error().message());
    }

private:
    Result<void> start() {
        if (!_device->presents())
            return GpuError("the GPU cannot present to windows here");
        _vulkan.setVkInstance(*_device->instance());
        if (!_vulkan.create())
            return GpuError("Qt could not take Vulkan's instance");
        try {
            for (size_t i = 0; i < FramesInFlight; ++i) {
                vk::raii::CommandPool pool(
                    _device->device(), vk::CommandPoolCreateInfo(vk::CommandPoolCreateFlagBits::eTransient,
                                                                 _device->queueFamily()));
                vk::raii::CommandBuffers buffers(
                    _device->device(),
                    vk::CommandBufferAllocateInfo(*pool, vk::CommandBufferLevel::ePrimary, 1));
                _frames.push_back({std::move(pool), std::move(buffers.front()),
                                   vk::raii::Semaphore(_device->device(), vk::SemaphoreCreateInfo()), 0,
                                   nullptr});
            }
        } catch (const std::exception& exception) {
            return GpuError(std::string("its frames could not be made: ") + exception.what());
        }
        _window = new PreviewWindow([this] { redraw(); }, [this] { loseSurface(); });
        _window->setVulkanInstance(&_vulkan);
        _container = QWidget::createWindowContainer(_window, this);
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(_container);
        return {};
    }

    // One line, once; the view stays black and recording goes on without it.
    void giveUp(const std::string& reason) {
        _broken = true;
        Log("QuorvaRecorder: ", "the monitor shows nothing: " + reason);
        if (_window)
            _window->forget();
        stopDrawing();
        if (_container)
            _container->hide();
    }

    // Waits for every frame in flight, then lets go of the swap chain and the pictures they held.
    void stopDrawing() {
        if (Result<void> idle = _device->waitUntilIdle(); !idle)
            Log("QuorvaRecorder: ", idle.error().message());
        for (FrameSlot& slot : _frames) {
            slot.submitted = 0;
            slot.picture.reset();
        }
        _chain.reset();
    }

    void loseSurface() {
        stopDrawing();
        _surface = nullptr;
    }

    Result<void> draw() {
        if (!_window || !_window->isExposed())
            return {};
        const QSize pixels = _window->size() * _window->devicePixelRatio();
        if (pixels.isEmpty())
            return {};
        if (!_surface) {
            _surface = QVulkanInstance::surfaceForWindow(_window);
            if (!_surface)
                return GpuError("the window has no Vulkan surface");
            if (!_device->physicalDevice().getSurfaceSupportKHR(_device->queueFamily(), _surface))
                return GpuError("the GPU's queue cannot present to the window");
        }
        FrameSlot& slot = _frames[_nextFrame];
        if (slot.submitted) {
            if (Result<void> done = _device->waitUntilCompleted(slot.submitted); !done)
                return done;
            slot.submitted = 0;
            slot.picture.reset();
        }
        if (!_chain || _stale || _chain->madeFor != pixels) {
            if (Result<void> made = makeSwapChain(pixels); !made)
                return made;
            if (!_chain)
                return {}; // minimised: nothing to draw into
        }

        uint32_t index = 0;
        try {
            auto [result, acquired] = _chain->swapchain.acquireNextImage(UINT64_MAX, *slot.acquired);
            if (result != vk::Result::eSuccess && result != vk::Result::eSuboptimalKHR)
                return {}; // not signalled: the next tick tries again
            // Still presentable: this frame goes out, the next one gets a swap chain of its own.
            _stale = result == vk::Result::eSuboptimalKHR;
            index = acquired;
        } catch (const vk::OutOfDateKHRError&) {
            _stale = true;
            return {};
        } catch (const std::exception& exception) {
            return GpuError(std::string("no image to draw into: ") + exception.what());
        }

        const PreviewFrame shown = frame();
        std::shared_ptr<Texture> picture;
        if (shown.picture) {
            Result<std::shared_ptr<Texture>> texture = _engine->texture(shown.picture);
            if (texture)
                picture = std::move(texture.value());
            else if (!_pictureFailed) {
                // A picture the engine cannot hold shows as black; said once, not sixty times a second.
                Log("QuorvaRecorder: ", "the monitor cannot show a picture: " + texture.error().message());
                _pictureFailed = true;
            }
        }

        try {
            record(slot, index, picture, shown.flipped);
        } catch (const std::exception& exception) {
            return GpuError(std::string("its commands could not be recorded: ") + exception.what());
        }
        vk::SemaphoreSubmitInfo wait(*slot.acquired, 0, vk::PipelineStageFlagBits2::eColorAttachmentOutput);
        vk::SemaphoreSubmitInfo signal(*_chain->rendered[index], 0,
                                       vk::PipelineStageFlagBits2::eColorAttachmentOutput);
        Result<uint64_t> submitted = _device->submit(*slot.commands, wait, signal);
        if (!submitted)
            return submitted.error();
        slot.submitted = submitted.value();
        slot.picture = std::move(picture);
        _nextFrame = (_nextFrame + 1) % _frames.size();

        vk::SwapchainKHR swapchain = *_chain->swapchain;
        vk::Semaphore rendered = *_chain->rendered[index];
        Result<vk::Result> presented = _device->present(vk::PresentInfoKHR(rendered, swapchain, index));
        if (!presented)
            return presented.error();
        if (presented.value() != vk::Result::eSuccess)
            _stale = true;
        return {};
    }

    // Clears the image to black and draws the picture letterboxed on it, if there is one. The picture
    // was last written by commands submitted earlier to the device's one queue (a composition is
    // committed before it is handed out, an upload waited for), whose closing barrier makes those
    // writes visible to every later command; so it can be sampled as it rests.
    void record(FrameSlot& slot, uint32_t index, const std::shared_ptr<Texture>& picture, bool flipped) {
        const vk::raii::CommandBuffer& commands = slot.commands;
        slot.pool.reset();
        commands.begin(vk::CommandBufferBeginInfo(vk::CommandBufferUsageFlagBits::eOneTimeSubmit));
        // The clear replaces what the image held; the acquisition's semaphore is waited for at this stage.
        vk::ImageMemoryBarrier2 toAttachment(
            vk::PipelineStageFlagBits2::eColorAttachmentOutput, {},
            vk::PipelineStageFlagBits2::eColorAttachmentOutput, vk::AccessFlagBits2::eColorAttachmentWrite,
            vk::ImageLayout::eUndefined, vk::ImageLayout::eColorAttachmentOptimal, VK_QUEUE_FAMILY_IGNORED,
            VK_QUEUE_FAMILY_IGNORED, _chain->images[index], WholeImage);
        commands.pipelineBarrier2(vk::DependencyInfo({}, {}, {}, toAttachment));

        vk::RenderingAttachmentInfo colour(*_chain->views[index], vk::ImageLayout::eColorAttachmentOptimal);
        colour.setLoadOp(vk::AttachmentLoadOp::eClear)
            .setStoreOp(vk::AttachmentStoreOp::eStore)
            .setClearValue(vk::ClearColorValue(std::array<float, 4>{0, 0, 0, 1}));
        const vk::Extent2D extent = _chain->extent;
        commands.beginRendering(vk::RenderingInfo({}, vk::Rect2D({0, 0}, extent), 1, 0, colour));
        if (picture) {
            // Opaque: a picture's alpha (a source's transparency) must not let the window system blend
            // what lies behind into the monitor.
            const QuadConstants constants{
                PreviewVertices(
                    FittedExtent(picture->width(), picture->height(), extent.width, extent.height), flipped),
                1};
            // A viewport of negative height turns y upwards, as the vertices have it.
            const auto width = float(extent.width), height = float(extent.height);
            commands.setViewport(0, vk::Viewport(0, height, width, -height, 0, 1));
            commands.setScissor(0, vk::Rect2D({0, 0}, extent));
            commands.bindPipeline(vk::PipelineBindPoint::eGraphics, _pipeline->pipeline());
            commands.pushConstants<QuadConstants>(_pipeline->layout(), BothStages, 0, constants);
            vk::DescriptorImageInfo image(nullptr, picture->view(), Texture::RestingLayout);
            vk::WriteDescriptorSet write(nullptr, 0, 0, vk::DescriptorType::eCombinedImageSampler, image);
            commands.pushDescriptorSetKHR(vk::PipelineBindPoint::eGraphics, _pipeline->layout(), 0, write);
            commands.draw(4, 1, 0, 0);
        }
        commands.endRendering();
        // Presentation waits for the semaphore signalled after this, which makes the writes visible to it.
        vk::ImageMemoryBarrier2 toPresent(
            vk::PipelineStageFlagBits2::eColorAttachmentOutput, vk::AccessFlagBits2::eColorAttachmentWrite,
            vk::PipelineStageFlagBits2::eNone, {}, vk::ImageLayout::eColorAttachmentOptimal,
            vk::ImageLayout::ePresentSrcKHR, VK_QUEUE_FAMILY_IGNORED, VK_QUEUE_FAMILY_IGNORED,
            _chain->images[index], WholeImage);
        commands.pipelineBarrier2(vk::DependencyInfo({}, {}, {}, toPresent));
        commands.end();
    }

    // A swap chain for the window's present size (none while the surface has no size), handing the old
    // one's images over to it.
    Result<void> makeSwapChain(QSize pixels) {
        // Everything that used the old swap chain, its presentations included, must be done before it
        // goes; only resizes pay this wait.
        if (_chain) {
            if (Result<void> idle = _device->waitUntilIdle(); !idle)
                return idle;
            for (FrameSlot& slot : _frames) {
                slot.submitted = 0;
                slot.picture.reset();
            }
        }
        _stale = false;
        try {
            const vk::raii::PhysicalDevice& physical = _device->physicalDevice();
            const vk::SurfaceCapabilitiesKHR capabilities = physical.getSurfaceCapabilitiesKHR(_surface);
            vk::Extent2D extent = capabilities.currentExtent;
            // Some window systems leave the size to the swap chain.
            if (extent.width == UINT32_MAX) {
                extent.width = std::clamp(uint32_t(pixels.width()), capabilities.minImageExtent.width,
                                          capabilities.maxImageExtent.width);
                extent.height = std::clamp(uint32_t(pixels.height()), capabilities.minImageExtent.height,
                                           capabilities.maxImageExtent.height);
            }
            if (extent.width == 0 || extent.height == 0) {
                _chain.reset();
                return {};
            }
            if (!_pipeline) {
                const std::vector<vk::SurfaceFormatKHR> formats = physical.getSurfaceFormatsKHR(_surface);
                if (formats.empty())
                    return GpuError("the window offers no formats");
                _format = ChooseFormat(formats);
                Result<std::shared_ptr<RenderPipeline>> pipeline = MakeQuadPipeline(_device, _format.format);
                if (!pipeline)
                    return pipeline.error();
                _pipeline = std::move(pipeline.value());
            }
            uint32_t images = capabilities.minImageCount + 1;
            if (capabilities.maxImageCount > 0)
                images = std::min(images, capabilities.maxImageCount);
            vk::SwapchainCreateInfoKHR info;
            info.setSurface(_surface)
                .setMinImageCount(images)
                .setImageFormat(_format.format)
                .setImageColorSpace(_format.colorSpace)
                .setImageExtent(extent)
                .setImageArrayLayers(1)
                .setImageUsage(vk::ImageUsageFlagBits::eColorAttachment)
                .setImageSharingMode(vk::SharingMode::eExclusive)
                .setPreTransform(capabilities.currentTransform)
                .setCompositeAlpha(ChooseCompositeAlpha(capabilities.supportedCompositeAlpha))
                .setPresentMode(ChoosePresentMode(physical.getSurfacePresentModesKHR(_surface)))
                .setClipped(true)
                .setOldSwapchain(_chain ? *_chain->swapchain : vk::SwapchainKHR());
            vk::raii::SwapchainKHR swapchain(_device->device(), info);
            SwapChain chain{std::move(swapchain), extent, pixels, {}, {}, {}};
            for (VkImage image : chain.swapchain.getImages()) {
                chain.images.push_back(image);
                chain.views.emplace_back(_device->device(),
                                         vk::ImageViewCreateInfo({}, image, vk::ImageViewType::e2D,
                                                                 _format.format, {}, WholeImage));
                chain.rendered.emplace_back(_device->device(), vk::SemaphoreCreateInfo());
            }
            _chain = std::move(chain);
        } catch (const std::exception& exception) {
            _chain.reset();
            return GpuError(std::string("no swap chain for the window: ") + exception.what());
        }
        return {};
    }

    // Declared so that the device goes last and Qt's instance after the window (deleted by hand).
    std::shared_ptr<GpuPictureEngine> _engine;
    std::shared_ptr<GpuDevice> _device;
    QVulkanInstance _vulkan;
    std::vector<FrameSlot> _frames;
    size_t _nextFrame = 0;
    std::shared_ptr<RenderPipeline> _pipeline;
    vk::SurfaceFormatKHR _format;
    PreviewWindow* _window = nullptr; // owned by the container
    QWidget* _container = nullptr;
    vk::SurfaceKHR _surface; // Qt's, made with the window's native window and destroyed with it
    std::optional<SwapChain> _chain;
    bool _stale = false; // the swap chain no longer matches the window
    bool _broken = false;
    bool _pictureFailed = false;
};

} // namespace

PreviewView* MakeVulkanPreview(const std::shared_ptr<GpuPictureEngine>& engine, PreviewProvider provider,
                               WatchHandler watched, bool limited, QWidget* parent) {
    return new VulkanPreview(engine, std::move(provider), std::move(watched), limited, parent);
}

} // namespace quorva
