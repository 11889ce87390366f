// Choosing between the plain and the SIMD form of a kernel.
//
// SSE4.1 kernels live in *_sse4.cpp files, which are compiled with -msse4.1
// only when KORVANE_HAVE_SSE41 is 1; everything else is baseline code. Name an
// SSE4.1 kernel through KORVANE_SSE41(f) so builds without those files link.
//
// Every effect chooses its kernels the same way: once per processing call,
// from the SystemInfo it was given, with KORVANE_PICK. The choice carries the
// source name of the function that will run, so a log line built from it can
// never name a form that did not run:
//
//   const auto blur = KORVANE_PICK(m_system_info, GaussianBlurH, GaussianBlurH_SSE);
//   if ((hr = m_thread_adapter.RunTaskByMultiThread(blur.fn, &p, this, r)) < 0)
//     DebugLog("[Korvane] RunTaskByMultiThread(%s, ...) Error! ...", blur.name, hr);
//
// KORVANE_PICK_AT names the SIMD level a form needs when it is not SSE4.1
// (for example an SSE2 form in a baseline file, taken from level 3).
//
// A kernel family with a third, AVX2 form (in a *_avx2.cpp file compiled
// with -mavx2 and without FMA contraction, so it gives the same bytes) is
// picked with KORVANE_PICK_AVX2(info, plain, sse, avx2): the AVX2 form when
// info.avx_level says the processor and system have it, else as KORVANE_PICK.
#pragma once

#include "core/SystemInfo.h"

#ifndef KORVANE_HAVE_SSE41
#define KORVANE_HAVE_SSE41 0
#endif

#ifndef KORVANE_HAVE_AVX2
#define KORVANE_HAVE_AVX2 0
#endif

#if KORVANE_HAVE_SSE41
#define KORVANE_SSE41(f) (&(f))
#else
#define KORVANE_SSE41(f) (static_cast<decltype(&(f))>(nullptr))
#endif

#if KORVANE_HAVE_AVX2
#define KORVANE_AVX2(f) (&(f))
#else
#define KORVANE_AVX2(f) (static_cast<decltype(&(f))>(nullptr))
#endif

namespace Korvane {

// A chosen kernel: the function to call and its name as written in the source.
template <class F>
struct Kernel {
  F fn = nullptr;
  const char* name = "";
  bool simd = false;  // true when a SIMD form was taken
  bool avx2 = false;  // true when that form is the AVX2 one
};

// The SIMD form when `info` reaches `min_level` and the form was built, else
// the plain one.
template <class F>
inline Kernel<F> ChooseKernel(const SystemInfo& info, F plain, const char* plain_name, F simd,
                              const char* simd_name, int32_t min_level = SIMD_SSE41) {
  if (info.simd_level >= min_level && simd != nullptr) return Kernel<F>{simd, simd_name, true};
  return Kernel<F>{plain, plain_name, false};
}

// The AVX2 form when info.avx_level reaches AVX_AVX2 and the form was built,
// else the choice between the other two.
template <class F>
inline Kernel<F> ChooseKernel(const SystemInfo& info, F plain, const char* plain_name, F sse, const char* sse_name,
                              F avx2, const char* avx2_name) {
  if (info.avx_level >= AVX_AVX2 && avx2 != nullptr) return Kernel<F>{avx2, avx2_name, true, true};
  return ChooseKernel(info, plain, plain_name, sse, sse_name);
}

// The same choice with the names taken from the source. `simd` must be an
// SSE4.1 kernel (it goes through KORVANE_SSE41, so builds without it link).
#define KORVANE_PICK(info, plain, simd) \
  ::Korvane::ChooseKernel<decltype(&(plain))>((info), &(plain), #plain, KORVANE_SSE41(simd), #simd)

// Plain, SSE4.1 and AVX2 forms of one kernel.
#define KORVANE_PICK_AVX2(info, plain, sse, avx2)                                                            \
  ::Korvane::ChooseKernel<decltype(&(plain))>((info), &(plain), #plain, KORVANE_SSE41(sse), #sse,            \
                                              KORVANE_AVX2(avx2), #avx2)

// A SIMD form built into every x86-64 library (SSE2 and below live in
// baseline files), taken from `level` on.
#define KORVANE_PICK_AT(info, level, plain, simd) \
  ::Korvane::ChooseKernel<decltype(&(plain))>((info), &(plain), #plain, &(simd), #simd, (level))

}  // namespace Korvane
