#pragma once

namespace quorva {

// How this process takes memory from the system, chosen once at start-up, before the first take; programs
// started from it inherit the page size choice.
//
// Small pages: a take's start touches a few hundred megabytes of new memory at once (pictures, converted
// frames, every encoder's reference frames), and in a virtual machine a new huge page costs the
// hypervisor far more than 512 small ones (0.5 GB/s against 2.8 GB/s measured here), which made the
// start of a four-source take drop frames. Once touched, memory stays in pools, so small pages cost
// nothing measurable afterwards.
//
// Blocks of a megabyte and more are mapped and unmapped on their own: the allocator otherwise raises
// that limit as such blocks are freed, keeps them in its arenas, and a recorder that makes take after
// take grew by a hundred megabytes or more each time.
void TuneProcessMemory();

} // namespace quorva
