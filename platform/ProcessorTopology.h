#pragma once

#include <filesystem>

namespace quorva {

// What a second hardware thread of a core adds to it: the two share the core's execution units, and
// SIMD-heavy work such as encoding keeps those busy already, so the pair does about a quarter more
// than one.
inline constexpr double SharedCoreGain = 0.25;

// The processors online, counted as what each adds to work that keeps a core busy: every core once,
// each further hardware thread of a core SharedCoreGain, read from `cpuFolder`'s topology. Every
// processor online counts once where the topology cannot be read.
//
// Threads: any; it reads the files anew on every call.
double ProcessorCapacity(const std::filesystem::path& cpuFolder = "/sys/devices/system/cpu");

} // namespace quorva
