#pragma once

#include "platform/gpu/GpuDevice.h"

#include <filesystem>
#include <memory>

namespace quorva {

// What every benchmark's main does first: gives the Vulkan loader the private runtime folder that
// machines without a session lack, reads Google Benchmark's flags (refusing any other), and makes the
// device (QUORVA_VULKAN_DEVICE names part of one), whose name goes into the report. Exits with a
// message when the flags are wrong or there is no device.
std::shared_ptr<GpuDevice> SetUpBenchmark(int& argc, char** argv);

// A fresh temporary folder for the movies a benchmark writes, removed with them at the end.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return _path; }

private:
    std::filesystem::path _path;
};

} // namespace quorva
