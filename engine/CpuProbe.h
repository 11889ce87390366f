// Finds the processor's SIMD level (0..6) from CPUID leaves 0 and 1.
#pragma once

#include <cstdint>

namespace Korvane {

// The level for a given highest basic leaf and leaf-1 feature words.
int32_t SimdLevelFromCpuid(uint32_t max_basic_leaf, uint32_t edx, uint32_t ecx);

// The level of the processor this runs on (0 where CPUID does not exist).
int32_t ProbeSimdLevel();

}  // namespace Korvane
