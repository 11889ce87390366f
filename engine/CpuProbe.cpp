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

int32_t AvxLevelFromCpuid(uint32_t max_basic_leaf, uint32_t leaf1_ecx, uint32_t leaf7_ebx, uint64_t xcr0) {
  const bool avx = (leaf1_ecx & (1u << 28)) != 0, osxsave = (leaf1_ecx & (1u << 27)) != 0;
  if (max_basic_leaf < 7 || !avx || !osxsave || (xcr0 & 6u) != 6u) return AVX_NONE;
  return (leaf7_ebx & (1u << 5)) ? AVX_AVX2 : AVX_NONE;
}

int32_t ProbeAvxLevel() {
  uint32_t regs[4];
  if (!Platform::Cpuid(0, regs)) return AVX_NONE;
  const uint32_t max_leaf = regs[0];
  if (max_leaf < 7) return AVX_NONE;
  Platform::Cpuid(1, regs);
  const uint32_t leaf1_ecx = regs[2];
  Platform::Cpuid(7, regs);
  return AvxLevelFromCpuid(max_leaf, leaf1_ecx, regs[1], Platform::EnabledStateMask());
}

}  // namespace Korvane
