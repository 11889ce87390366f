// Finds the processor's SIMD level (0..6) from CPUID leaves 0 and 1, and
// whether it has AVX2 that the operating system lets programs use.
#pragma once

#include <cstdint>

namespace Korvane {

// The level for a given highest basic leaf and leaf-1 feature words.
int32_t SimdLevelFromCpuid(uint32_t max_basic_leaf, uint32_t edx, uint32_t ecx);

// The level of the processor this runs on (0 where CPUID does not exist).
int32_t ProbeSimdLevel();

// AVX_AVX2 when leaf 1 reports AVX and OSXSAVE, leaf 7 reports AVX2 and the
// operating system saves the SSE and YMM state (bits 1 and 2 of XCR0);
// AVX_NONE otherwise.
int32_t AvxLevelFromCpuid(uint32_t max_basic_leaf, uint32_t leaf1_ecx, uint32_t leaf7_ebx, uint64_t xcr0);
int32_t ProbeAvxLevel();

}  // namespace Korvane
