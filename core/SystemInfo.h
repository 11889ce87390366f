// The machine description the engine gives every effect.
#pragma once

#include <cstdint>

namespace Korvane {

// SIMD levels found by the CPU probe; effects compare against them.
enum SimdLevel : int32_t {
  SIMD_NONE = 0,
  SIMD_SSE = 1,
  SIMD_SSE2 = 2,
  SIMD_SSE3 = 3,
  SIMD_SSSE3 = 4,
  SIMD_SSE41 = 5,
  SIMD_SSE42 = 6,
};

// Wider vector units, found beside the SIMD level (which keeps its 0..6
// meaning): AVX2 counts only when the operating system saves the YMM
// registers.
enum AvxLevel : int32_t {
  AVX_NONE = 0,
  AVX_AVX2 = 1,
};

struct SystemInfo {
  int32_t processor_count = 1;
  int32_t simd_level = SIMD_NONE;
  int32_t reserved = 0;
  int32_t avx_level = AVX_NONE;
};

// Human-readable name of a SIMD level, e.g. "SSE4.1".
inline const char* SimdLevelName(int32_t level) {
  static const char* const kNames[] = {"none", "SSE", "SSE2", "SSE3", "SSSE3", "SSE4.1", "SSE4.2"};
  return (level >= 0 && level <= 6) ? kNames[level] : "unknown";
}

inline const char* AvxLevelName(int32_t level) { return level >= AVX_AVX2 ? "AVX2" : "none"; }

}  // namespace Korvane
