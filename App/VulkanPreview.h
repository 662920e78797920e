#pragma once

#include "App/Preview.h"

#include <memory>

namespace quorva {

class GpuPictureEngine;

// The monitor on the GPU: the engine's pictures drawn with Vulkan into a window surface of the view.
//
// Threads: the main thread only, as every view. A redraw records and submits on the engine's device
// queue (shared with the recording, under the device's own lock) and may block the main thread: for the
// frame drawn two redraws before to leave the GPU, and for the swap chain to hand out an image (FIFO,
// where mailbox is not offered, waits for the screen). A resize, the surface going away and the
// destructor wait until the whole device is idle, the recording's work on it included. The picture shown
// is held until the GPU has drawn it, so a composition target never returns to its pool while read.
PreviewView* MakeVulkanPreview(const std::shared_ptr<GpuPictureEngine>& engine, PreviewProvider provider,
                               WatchHandler watched, bool limited, QWidget* parent);

} // namespace quorva
