#include "platform/PictureEngine.h"

#include "platform/cpu/CpuPictureEngine.h"
#include "platform/gpu/GpuPictureEngine.h"

#include <cstdlib>
#include <string_view>

namespace quorva {

Result<std::shared_ptr<PictureEngine>> PictureEngine::make(const std::shared_ptr<GpuDevice>& device) {
    const char* forced = std::getenv("QUORVA_PICTURES");
    const std::string_view wanted = forced ? forced : "";
    if (!wanted.empty() && wanted != "processor" && wanted != "vulkan")
        return Error(std::string(ApplicationIdentifier) + ".Picture", -1,
                     "QUORVA_PICTURES is “" + std::string(wanted) + "”: it must be “processor” or “vulkan”");
    const bool processor = wanted.empty() ? !device || device->isSoftware() : wanted == "processor";
    if (processor)
        return std::shared_ptr<PictureEngine>(CpuPictureEngine::make());
    if (!device)
        return GpuError("QUORVA_PICTURES asks for Vulkan, and there is no Vulkan device");
    Result<std::shared_ptr<GpuPictureEngine>> engine = GpuPictureEngine::make(device);
    if (!engine)
        return engine.error();
    return std::shared_ptr<PictureEngine>(std::move(engine.value()));
}

} // namespace quorva
