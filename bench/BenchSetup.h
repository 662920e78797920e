#pragma once

#include "platform/PictureEngine.h"

#include <filesystem>
#include <memory>

namespace quorva {

// What every benchmark's main does first: gives the Vulkan loader the private runtime folder that
// machines without a session lack, reads Google Benchmark's flags (refusing any other), and makes the
// device (QUORVA_VULKAN_DEVICE names part of one) and the picture engine the program would choose on it
// (QUORVA_PICTURES forces one), whose names go into the report. Exits with a message when the flags are
// wrong or there is no device.
std::shared_ptr<PictureEngine> SetUpBenchmark(int& argc, char** argv);

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

// The engine and the scratch folder of the benchmarks that record, set by RunBenchmarks.
extern std::shared_ptr<PictureEngine> BenchEngine;
extern std::filesystem::path BenchFolder;

// The whole main of such a benchmark: SetUpBenchmark, a ScratchFolder, then every benchmark registered.
int RunBenchmarks(int argc, char** argv);

} // namespace quorva
