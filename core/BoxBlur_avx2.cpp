// AVX2 forms of the box blurs, bit-identical to the plain forms: the tasks
// choose the pass of each variant. Columns of 8-bit images and both passes
// of float images run the AVX2 passes (BoxBlurColumns8_avx2,
// BoxBlurFloat_avx2); rows of 8-bit images run the SSE4.1 row walkers,
// whose running prefix sum is serial along the row; INT32 images and
// windows without an exact 16-bit divider run the plain code.
#include "core/BoxBlurDetail.h"

namespace Korvane {

namespace {

const boxblur_detail::SimdPasses kAvx2Passes = {boxblur_sse::Horizontal8, boxblur_avx2::Vertical8,
                                                boxblur_avx2::HorizontalFloat, boxblur_avx2::VerticalFloat};

}  // namespace

int32_t BoxBlurH_AVX2(ThreadJob* job, int32_t* result) {
  return boxblur_detail::RunSimdPasses(job, result, true, 1, kAvx2Passes);
}

int32_t BoxBlurV_AVX2(ThreadJob* job, int32_t* result) {
  return boxblur_detail::RunSimdPasses(job, result, false, 1, kAvx2Passes);
}

int32_t BoxBlurHRepeat_AVX2(ThreadJob* job, int32_t* result) {
  return boxblur_detail::RunSimdRepeat(job, result, kAvx2Passes);
}

}  // namespace Korvane
