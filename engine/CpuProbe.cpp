#include "engine/CpuProbe.h"

#include "core/Platform.h"
#include "core/SystemInfo.h"

namespace Korvane {

int32_t SimdLevelFromCpuid(uint32_t max_basic_leaf, uint32_t edx, uint32_t ecx) {
  if (max_basic_leaf == 0) return SIMD_NONE;
  if (!(edx & (1u << 25))) return SIMD_NONE;
  if (!(edx & (1u << 26))) return SIMD_SSE;
  if (!(ecx & (1u << 0))) return SIMD_SSE2;
  const bool ssse3 = (ecx & (1u << 9)) != 0;
  const bool sse41 = (ecx & (1u << 19)) != 0;
  if (ssse3 && sse41) return (ecx & (1u << 20)) ? SIMD_SSE42 : SIMD_SSE41;
  return ssse3 ? SIMD_SSSE3 : SIMD_SSE3;
}

int32_t ProbeSimdLevel() {
  uint32_t regs[4];
  if (!Platform::Cpuid(0, regs)) return SIMD_NONE;
  const uint32_t max_leaf = regs[0];
  if (max_leaf == 0) return SIMD_NONE;
  Platform::Cpuid(1, regs);
  return SimdLevelFromCpuid(max_leaf, regs[3], regs[2]);
}

}  // namespace Korvane
