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
#pragma once

#include <cstdint>
#include <type_traits>

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

}  // namespace Korvane
