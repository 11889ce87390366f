// The one place that knows the operating system and the processor: the
// debugger sink, the logical processor count and the CPUID instruction.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Korvane {
namespace Platform {

// Writes one line of text to the debugger (stderr outside Windows).
void WriteDebugString(const char* text);

// Number of logical processors the operating system reports (at least 1).
int32_t LogicalProcessorCount();

// Runs CPUID for `leaf` (sub-leaf 0) into regs = {eax, ebx, ecx, edx}.
// Returns false where the instruction does not exist (non-x86 processors).
bool Cpuid(uint32_t leaf, uint32_t regs[4]);

// The operating system's extended-state mask (XGETBV with ECX = 0): which
// register files it saves on a context switch. 0 where the instruction does
// not exist or the system does not enable it (CPUID leaf 1, ECX bit 27).
uint64_t EnabledStateMask();

// Memory for image pixels, aligned to 64 bytes. Blocks of 4 MB or more are
// aligned to 2 MB and offered to the operating system as huge pages, which
// saves most of the page faults of the first pass over a fresh working image.
// Returns NULL when memory runs out. Release with FreePixels.
void* AllocatePixels(size_t bytes);
void FreePixels(void* p);

}  // namespace Platform
}  // namespace Korvane
