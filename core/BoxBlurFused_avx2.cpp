// AVX2 vertical steps of the one-sweep 8-bit box blur (see FusedBlur8_AVX2):
// the SSE4.1 steps on 32 bytes at a time, the same 16-bit sums and exact
// dividers, so the bytes are those of the two passes.
#include <immintrin.h>

#include "core/BoxBlurAvx2.h"

namespace Korvane {
namespace boxblur_avx2 {

namespace {

void SweepRowAdd(uint16_t* sums, const unsigned char* in, int32_t bytes) {
  int32_t j = 0;
  for (; j + 32 <= bytes; j += 32) {
    AddBytes(sums + j, Widen16(in + j));
    AddBytes(sums + j + 16, Widen16(in + j + 16));
  }
  for (; j < bytes; ++j) sums[j] = static_cast<uint16_t>(sums[j] + in[j]);
}

template <bool kAdd, bool kSub, bool kAlpha>
void SweepRow(uint16_t* sums, const unsigned char* in, const unsigned char* leaving,
              const boxblur_detail::Div16Params& params, int32_t bytes, unsigned char* out) {
  const Div16x d = ToDiv16x(params);
  int32_t j = 0;
  for (; j + 32 <= bytes; j += 32) {
    __m256i s[2];
    for (int h = 0; h < 2; ++h) {
      s[h] = LoadSums(sums + j + 16 * h);
      if constexpr (kAdd) s[h] = _mm256_add_epi16(s[h], Widen16(in + j + 16 * h));
      if constexpr (kSub) s[h] = _mm256_sub_epi16(s[h], Widen16(leaving + j + 16 * h));
      StoreSums(sums + j + 16 * h, s[h]);
    }
    __m256i v = PackBytes(Divide16(s[0], d), Divide16(s[1], d));
    __m256i* o = reinterpret_cast<__m256i*>(out + j);
    if constexpr (kAlpha) v = _mm256_blendv_epi8(v, _mm256_loadu_si256(o), AlphaBytes());
    _mm256_storeu_si256(o, v);
  }
  boxblur_detail::SweepStep8(sums, kAdd ? in : nullptr, kSub ? leaving : nullptr, params.scalar, kAlpha, j, bytes,
                             out);
}

}  // namespace

}  // namespace boxblur_avx2

namespace boxblur_detail {

using boxblur_avx2::SweepRow;

// clang-format off
const SweepSteps kSweepStepsAvx2 = {
    boxblur_avx2::SweepRowAdd,
    {{{SweepRow<false, false, false>, SweepRow<false, false, true>},
      {SweepRow<false, true, false>, SweepRow<false, true, true>}},
     {{SweepRow<true, false, false>, SweepRow<true, false, true>},
      {SweepRow<true, true, false>, SweepRow<true, true, true>}}}};
// clang-format on

}  // namespace boxblur_detail
}  // namespace Korvane
