#include "platform/gpu/CommandBuffer.h"

#include "platform/gpu/CommandQueueState.h"
#include "platform/gpu/RenderPipeline.h"
#include "platform/gpu/Texture.h"

namespace quorva {

namespace {

constexpr vk::ShaderStageFlags BothStages =
    vk::ShaderStageFlagBits::eVertex | vk::ShaderStageFlagBits::eFragment;

} // namespace

CommandBuffer::CommandBuffer(std::shared_ptr<CommandQueueState> queue, std::unique_ptr<CommandSlot> slot)
    : _queue(std::move(queue)), _slot(std::move(slot)) {}

CommandBuffer::~CommandBuffer() {
    if (_slot)
        _queue->returnSlot(std::move(_slot));
}

const vk::raii::CommandBuffer& CommandBuffer::commands() const {
    return _slot->commands;
}

void CommandBuffer::fail(std::string reason) {
    if (!_failure)
        _failure = std::move(reason);
}

void CommandBuffer::beginRendering(const std::shared_ptr<Texture>& target,
                                   const std::array<float, 4>& clearColour) {
    if (_committed || _target || !target) {
        fail("A drawing pass was started inside another, after commit, or without a target");
        return;
    }
    _target = target;
    _held.push_back(target);
    // The clear replaces everything, so the old layout does not matter; earlier users must be done.
    auto toAttachment = target->barrier(vk::ImageLayout::eUndefined, vk::ImageLayout::eColorAttachmentOptimal,
                                        vk::PipelineStageFlagBits2::eAllCommands, {},
                                        vk::PipelineStageFlagBits2::eColorAttachmentOutput,
                                        vk::AccessFlagBits2::eColorAttachmentWrite);
    commands().pipelineBarrier2(vk::DependencyInfo({}, {}, {}, toAttachment));

    vk::RenderingAttachmentInfo colour(target->view(), vk::ImageLayout::eColorAttachmentOptimal);
    colour.setLoadOp(vk::AttachmentLoadOp::eClear)
        .setStoreOp(vk::AttachmentStoreOp::eStore)
        .setClearValue(vk::ClearColorValue(clearColour));
    vk::Extent2D extent(target->width(), target->height());
    commands().beginRendering(vk::RenderingInfo({}, vk::Rect2D({0, 0}, extent), 1, 0, colour));
    // A viewport of negative height turns clip space's y upwards (maintenance1, core since 1.1).
    float width = float(extent.width), height = float(extent.height);
    commands().setViewport(0, vk::Viewport(0, height, width, -height, 0, 1));
    commands().setScissor(0, vk::Rect2D({0, 0}, extent));
}

void CommandBuffer::setPipeline(const std::shared_ptr<RenderPipeline>& pipeline) {
    if (!_target || !pipeline) {
        fail("A pipeline was set outside a drawing pass");
        return;
    }
    _pipeline = pipeline;
    _held.push_back(pipeline);
    commands().bindPipeline(vk::PipelineBindPoint::eGraphics, pipeline->pipeline());
}

void CommandBuffer::setConstants(const void* bytes, uint32_t size, uint32_t offset) {
    if (!_pipeline || offset % 4 != 0 || size % 4 != 0 || offset + size > _pipeline->constantsSize()) {
        fail("Constants were set without a pipeline or beyond its constants");
        return;
    }
    commands().pushConstants<uint8_t>(
        _pipeline->layout(), BothStages, offset,
        vk::ArrayProxy<const uint8_t>(size, static_cast<const uint8_t*>(bytes)));
}

void CommandBuffer::setTexture(const std::shared_ptr<Texture>& texture, bool opaque) {
    if (!_pipeline || !_pipeline->samplesTexture() || !texture) {
        fail("A texture was set for a pipeline that samples none");
        return;
    }
    _held.push_back(texture);
    // The sampler is built into the pipeline's layout, so only the view goes here.
    vk::DescriptorImageInfo image(nullptr, opaque ? texture->opaqueView() : texture->view(),
                                  Texture::RestingLayout);
    vk::WriteDescriptorSet write(nullptr, 0, 0, vk::DescriptorType::eCombinedImageSampler, image);
    commands().pushDescriptorSetKHR(vk::PipelineBindPoint::eGraphics, _pipeline->layout(), 0, write);
}

void CommandBuffer::draw(uint32_t vertexCount) {
    if (!_pipeline) {
        fail("Something was drawn without a pipeline");
        return;
    }
    commands().draw(vertexCount, 1, 0, 0);
}

void CommandBuffer::endRendering() {
    if (!_target) {
        fail("A drawing pass was ended that had not begun");
        return;
    }
    commands().endRendering();
    auto toResting =
        _target->barrier(vk::ImageLayout::eColorAttachmentOptimal, Texture::RestingLayout,
                         vk::PipelineStageFlagBits2::eColorAttachmentOutput,
                         vk::AccessFlagBits2::eColorAttachmentWrite, vk::PipelineStageFlagBits2::eAllCommands,
                         vk::AccessFlagBits2::eMemoryRead | vk::AccessFlagBits2::eMemoryWrite);
    commands().pipelineBarrier2(vk::DependencyInfo({}, {}, {}, toResting));
    _target.reset();
    _pipeline.reset();
}

void CommandBuffer::record(const std::function<void(const vk::raii::CommandBuffer&)>& record,
                           std::shared_ptr<const void> held) {
    if (_committed || _target) {
        fail("Commands were recorded inside a drawing pass or after commit");
        return;
    }
    if (held)
        _held.push_back(std::move(held));
    try {
        record(commands());
    } catch (const std::exception& exception) {
        fail(std::string("The commands could not be recorded: ") + exception.what());
    }
}

void CommandBuffer::addCompletedHandler(std::function<void()> handler) {
    if (handler)
        _handlers.push_back(std::move(handler));
}

Result<void> CommandBuffer::commit() {
    if (_committed)
        return GpuError("A command buffer was committed twice");
    if (_target)
        fail("A drawing pass was not ended before commit");
    _committed = true;
    if (_failure)
        return GpuError(*_failure);
    try {
        commands().end();
    } catch (const std::exception& exception) {
        return GpuError(std::string("The commands could not be completed: ") + exception.what());
    }
    return _queue->commit(shared_from_this(), *commands());
}

void CommandBuffer::complete() {
    auto handlers = std::move(_handlers);
    for (auto& handler : handlers)
        handler();
    _held.clear();
    _queue->returnSlot(std::move(_slot));
}

} // namespace quorva
