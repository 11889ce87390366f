// The kernel forms a test compares (plain, SSE4.1, AVX2), each as the
// SystemInfo that picks it: only the forms this build has and this
// processor can run.
#pragma once

#include <vector>

#include "TestSupport.h"
#include "engine/CpuProbe.h"

namespace KorvaneTest {

struct Form {
  const char* name;
  Korvane::SystemInfo info;
};

inline std::vector<Form> Forms() {
  std::vector<Form> forms{{"plain", Level(Korvane::SIMD_NONE)}};
  if (KORVANE_HAVE_SSE41) forms.push_back({"SSE4.1", Level(Korvane::SIMD_SSE41)});
  if (KORVANE_HAVE_AVX2 && Korvane::ProbeAvxLevel() >= Korvane::AVX_AVX2) {
    Korvane::SystemInfo avx2 = Level(Korvane::SIMD_SSE41);
    avx2.avx_level = Korvane::AVX_AVX2;
    forms.push_back({"AVX2", avx2});
  }
  return forms;
}

}  // namespace KorvaneTest
