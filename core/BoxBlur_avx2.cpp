// AVX2 forms of the box blurs, bit-identical to the plain forms: the tasks
// choose the pass of each variant. Columns of 8-bit images and both passes
// of float images run the AVX2 passes (BoxBlurColumns8_avx2,
// BoxBlurFloat_avx2); rows of 8-bit images run the SSE4.1 row walkers,
// whose running prefix sum is serial along the row; INT32 images and
// windows without an exact 16-bit divider run the plain code.
#include <new>

#include "core/BoxBlurDetail.h"
#include "core/ImageChecks.h"
#include "core/ResultCode.h"

namespace Korvane {

namespace {

using boxblur_detail::BlurJob;
using boxblur_detail::Variant;

int32_t RunAvx2Pass(ThreadJob* job, int32_t* result, bool rows, int32_t passes = 1) {
  BlurJob b;
  int32_t hr = boxblur_detail::PrepareBlur(job, rows, &b);
  if (hr >= 0 && b.begin < b.end) {
    try {
      const bool is_float = b.variant == Variant::kFloat32 || b.variant == Variant::kFloat96;
      if (rows && is_float) {
        hr = boxblur_avx2::HorizontalFloat(b, passes);
      } else {
        for (int32_t pass = 0; pass < passes && hr >= 0; ++pass) {
          if (b.variant == Variant::kInt32) {
            hr = boxblur_detail::BlurPlain(b, rows);
          } else if (is_float) {
            hr = boxblur_avx2::VerticalFloat(b);
          } else {
            hr = rows ? boxblur_sse::Horizontal8(b) : boxblur_avx2::Vertical8(b);
          }
        }
      }
    } catch (const std::bad_alloc&) {
      hr = E_OUTOFMEMORY;
    }
  }
  return Done(result, hr);
}

}  // namespace

int32_t BoxBlurH_AVX2(ThreadJob* job, int32_t* result) { return RunAvx2Pass(job, result, true); }

int32_t BoxBlurV_AVX2(ThreadJob* job, int32_t* result) { return RunAvx2Pass(job, result, false); }

int32_t BoxBlurHRepeat_AVX2(ThreadJob* job, int32_t* result) {
  const auto* repeat = static_cast<const BoxBlurRepeatParam*>(job->param);
  if (!repeat || !repeat->param) return Done(result, E_POINTER);
  ThreadJob inner = *job;
  inner.param = repeat->param;
  return RunAvx2Pass(&inner, result, true, repeat->passes);
}

}  // namespace Korvane
