// The kernel form a benchmark runs: the machine description held at plain,
// SSE4.1 or AVX2 (AVX2 only where the build has it and the processor runs it;
// otherwise the SSE4.1 form runs and the row's label says so).
#pragma once

#include "BenchSupport.h"
#include "engine/CpuProbe.h"

namespace KorvaneBench {

enum Form : int { kPlain = 0, kSse41 = 1, kAvx2 = 2 };

inline const char* FormSuffix(int form) { return form == kPlain ? "_plain" : form == kSse41 ? "_sse4" : ""; }

inline Korvane::SystemInfo FormInfo(int form) {
  Korvane::SystemInfo info = MachineInfo(form == kPlain ? Korvane::SIMD_NONE : Korvane::SIMD_SSE42);
  if (form == kAvx2 && KORVANE_HAVE_AVX2) info.avx_level = Korvane::ProbeAvxLevel();
  return info;
}

}  // namespace KorvaneBench
