// SSE forms of the box blurs, bit-identical to the plain forms: the tasks
// choose the pass of each variant; the passes live in one file each
// (BoxBlurRows8_sse4, BoxBlurColumns8_sse4, BoxBlurFloat_sse4) and the fused
// sweep in BoxBlurFused_sse4.
//
// 8-bit variants keep their window sums in 16-bit lanes, which holds every
// sum while the window has at most 185 samples (the exact 16-bit reciprocal
// of the sample count exists up to there); longer windows, INT32 images and
// leftover lines use the plain code, which gives the same bytes.
#include "core/BoxBlurSse.h"
#include "core/ImageChecks.h"
#include "core/ResultCode.h"

namespace Korvane {

namespace {

using namespace boxblur_sse;

// `passes` passes over the band. Lines are blurred independently, so passes
// run band by band give the bytes of whole-image passes run in turn.
int32_t RunSsePass(ThreadJob* job, int32_t* result, bool rows, int32_t passes = 1) {
  BlurJob b;
  int32_t hr = PrepareBlur(job, rows, &b);
  if (hr >= 0 && b.begin < b.end) {
    try {
      if (rows && (b.variant == Variant::kFloat32 || b.variant == Variant::kFloat96)) {
        hr = HorizontalFloat(b, passes);
      } else {
        for (int32_t pass = 0; pass < passes && hr >= 0; ++pass) {
          switch (b.variant) {
            case Variant::kBgra:
            case Variant::kGray:
            case Variant::kBgraMasked:
              hr = rows ? Horizontal8(b) : Vertical8(b);
              break;
            case Variant::kFloat32:
            case Variant::kFloat96:
              hr = VerticalFloat(b);
              break;
            case Variant::kInt32:
              hr = BlurPlain(b, rows);
              break;
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

int32_t BoxBlurH_SSE(ThreadJob* job, int32_t* result) { return RunSsePass(job, result, true); }

int32_t BoxBlurV_SSE(ThreadJob* job, int32_t* result) { return RunSsePass(job, result, false); }

int32_t BoxBlurHRepeat_SSE(ThreadJob* job, int32_t* result) {
  const auto* repeat = static_cast<const BoxBlurRepeatParam*>(job->param);
  if (!repeat || !repeat->param) {
    return Done(result, E_POINTER);
  }
  ThreadJob inner = *job;
  inner.param = repeat->param;
  return RunSsePass(&inner, result, true, repeat->passes);
}

}  // namespace Korvane
