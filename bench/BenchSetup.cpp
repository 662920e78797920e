#include "bench/BenchSetup.h"

#include "platform/ProcessMemory.h"
#include "platform/gpu/GpuDevice.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace quorva {

std::shared_ptr<PictureEngine> SetUpBenchmark(int& argc, char** argv) {
    // As the program does; the ffmpeg runs compared with it inherit the same memory.
    TuneProcessMemory();
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime) {
        std::string folder = "/tmp/quorva-runtime-" + std::to_string(getuid());
        mkdir(folder.c_str(), 0700);
        setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        std::exit(1);
    auto device = GpuDevice::make();
    if (!device) {
        std::fprintf(stderr, "%s: %s\n", argv[0], device.error().message().c_str());
        std::exit(1);
    }
    auto engine = PictureEngine::make(device.value());
    if (!engine) {
        std::fprintf(stderr, "%s: %s\n", argv[0], engine.error().message().c_str());
        std::exit(1);
    }
    benchmark::AddCustomContext("vulkan_device", device.value()->name());
    benchmark::AddCustomContext("pictures", engine.value()->name());
    return engine.value();
}

std::shared_ptr<PictureEngine> BenchEngine;
std::filesystem::path BenchFolder;

int RunBenchmarks(int argc, char** argv) {
    BenchEngine = SetUpBenchmark(argc, argv);
    ScratchFolder folder;
    BenchFolder = folder.path();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    BenchEngine.reset();
    return 0;
}

ScratchFolder::ScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quorva-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        std::perror("quorva-bench: a temporary folder");
        std::exit(1);
    }
    _path = pattern;
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

} // namespace quorva
