// SSE forms of the box blurs, bit-identical to the plain forms: the tasks
// choose the pass of each variant; the passes live in one file each
// (BoxBlurRows8_sse4, BoxBlurColumns8_sse4, BoxBlurFloat_sse4) and the fused
// sweep in BoxBlurFused_sse4.
//
// 8-bit variants keep their window sums in 16-bit lanes, which holds every
// sum while the window has at most 185 samples (the exact 16-bit reciprocal
// of the sample count exists up to there); longer windows, INT32 images and
// leftover lines use the plain code, which gives the same bytes.
#include "core/BoxBlurDetail.h"

namespace Korvane {

namespace {

const boxblur_detail::SimdPasses kSsePasses = {boxblur_sse::Horizontal8, boxblur_sse::Vertical8,
                                               boxblur_sse::HorizontalFloat, boxblur_sse::VerticalFloat};

}  // namespace

int32_t BoxBlurH_SSE(ThreadJob* job, int32_t* result) {
  return boxblur_detail::RunSimdPasses(job, result, true, 1, kSsePasses);
}

int32_t BoxBlurV_SSE(ThreadJob* job, int32_t* result) {
  return boxblur_detail::RunSimdPasses(job, result, false, 1, kSsePasses);
}

int32_t BoxBlurHRepeat_SSE(ThreadJob* job, int32_t* result) {
  return boxblur_detail::RunSimdRepeat(job, result, kSsePasses);
}

}  // namespace Korvane
