// Choosing between the plain and the SSE4.1 form of a kernel.
//
// SSE4.1 kernels live in *_sse4.cpp files, which are compiled with -msse4.1
// only when KORVANE_HAVE_SSE41 is 1; everything else is baseline code. Name an
// SSE4.1 kernel through KORVANE_SSE41(f) so builds without those files link.
#pragma once

#include "core/SystemInfo.h"

#ifndef KORVANE_HAVE_SSE41
#define KORVANE_HAVE_SSE41 0
#endif

#if KORVANE_HAVE_SSE41
#define KORVANE_SSE41(f) (&(f))
#else
#define KORVANE_SSE41(f) (static_cast<decltype(&(f))>(nullptr))
#endif

namespace Korvane {

// The SSE4.1 form when the level allows it and it was built, else the plain one.
template <class F>
inline F PickKernel(const SystemInfo& info, F plain, F sse41) {
  return (info.simd_level >= SIMD_SSE41 && sse41 != nullptr) ? sse41 : plain;
}

}  // namespace Korvane
