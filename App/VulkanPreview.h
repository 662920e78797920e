#pragma once

#include "App/Preview.h"

#include <memory>

namespace quorva {

class GpuPictureEngine;

// The monitor on the GPU: the engine's pictures drawn with Vulkan into a window surface of the view.
PreviewView* MakeVulkanPreview(const std::shared_ptr<GpuPictureEngine>& engine, PreviewProvider provider,
                               WatchHandler watched, bool limited, QWidget* parent);

} // namespace quorva
