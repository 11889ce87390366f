// Turning a function of one band into a task for the thread adapter.
//
// A kernel written as `int32_t Step(const MyParam& p, const Rect& band)`
// becomes a ThreadTask with BandTask<MyParam, Step>; the adapter's result slot
// is filled from its return value, so the kernel itself never touches it:
//
//   hr = m_thread_adapter.RunTaskByMultiThread(BandTask<MyParam, Step>, &p, this, region);
//
// RunBands does the same for a lambda, for per-call work that needs no name of
// its own (the lambda must be safe to call from several workers at once):
//
//   hr = RunBands(m_thread_adapter, region, [&](const Rect& band) { ...; return S_OK; });
//
// A band kernel with a plain and a SIMD form is picked with
// KORVANE_PICK_BAND, which gives the task of the chosen form together with
// that form's source name; RunPicked runs it and logs a failure under that
// name, and RowPipeline::Then takes it as a step:
//
//   const auto blend = KORVANE_PICK_BAND(m_system_info, BlendParam, BlendRays, BlendRays_SSE);
//   if ((hr = RunPicked(m_thread_adapter, blend, &p, roi)) < 0) return hr;  // "[Korvane](BlendRays_SSE) - ..."
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/DebugLog.h"
#include "core/Simd.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

template <class Param, int32_t (*Fn)(const Param&, const Rect&)>
int32_t BandTask(ThreadJob* job, int32_t* result) {
  const int32_t code = Fn(*static_cast<const Param*>(job->param), job->rect);
  *result = code;
  return code;
}

template <class Fn>
int32_t RunBands(CThreadAdapter& adapter, const Rect& region, Fn&& fn, bool b_is_horizontal_segment = true) {
  using F = std::remove_reference_t<Fn>;
  const ThreadTask task = [](ThreadJob* job, int32_t* result) -> int32_t {
    const int32_t code = (*static_cast<F*>(job->param))(job->rect);
    *result = code;
    return code;
  };
  return adapter.RunTaskByMultiThread(task, const_cast<void*>(static_cast<const void*>(&fn)), nullptr, region,
                                      b_is_horizontal_segment);
}

// A chosen task and the name of the form it runs.
using PickedTask = Kernel<ThreadTask>;

// Runs a picked task over `region` (rows, or columns when `rows` is false)
// and logs a failure as the step named after the form that ran.
inline int32_t RunPicked(CThreadAdapter& adapter, const PickedTask& task, void* param, const Rect& region,
                         bool rows = true) {
  return LogStep(task.name, adapter.RunTaskByMultiThread(task.fn, param, nullptr, region, rows));
}

}  // namespace Korvane

#if KORVANE_HAVE_SSE41
#define KORVANE_SSE41_BAND(Param, simd) (&::Korvane::BandTask<Param, simd>)
#else
#define KORVANE_SSE41_BAND(Param, simd) (static_cast<::Korvane::ThreadTask>(nullptr))
#endif

#if KORVANE_HAVE_AVX2
#define KORVANE_AVX2_BAND(Param, avx2) (&::Korvane::BandTask<Param, avx2>)
#else
#define KORVANE_AVX2_BAND(Param, avx2) (static_cast<::Korvane::ThreadTask>(nullptr))
#endif

// The plain or SSE4.1 form of a band kernel `int32_t f(const Param&, const Rect&)`,
// as a task named after the form.
#define KORVANE_PICK_BAND(info, Param, plain, simd)                                                          \
  ::Korvane::ChooseKernel<::Korvane::ThreadTask>((info), &::Korvane::BandTask<Param, plain>, #plain,        \
                                                 KORVANE_SSE41_BAND(Param, simd), #simd)

// The plain, SSE4.1 or AVX2 form of a band kernel, as a task named after the form.
#define KORVANE_PICK_BAND_AVX2(info, Param, plain, sse, avx2)                                                 \
  ::Korvane::ChooseKernel<::Korvane::ThreadTask>((info), &::Korvane::BandTask<Param, plain>, #plain,        \
                                                 KORVANE_SSE41_BAND(Param, sse), #sse,                      \
                                                 KORVANE_AVX2_BAND(Param, avx2), #avx2)
