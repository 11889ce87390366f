// SSE4.1 form of the focus blend: four pixels per step in 16-bit lanes. The
// weights of a pixel add up to 255, so each mix stays below 65536 and the
// division by 255 is the same integer rounding as the plain form's.
#include <smmintrin.h>

#include "core/FocusBlend.h"

namespace Korvane {

namespace {

void BlendRowSse(const uint8_t* p, const uint8_t* s, const uint8_t* w, const uint8_t* guide, int32_t guide_step,
                 const int32_t* table, uint8_t* out, int32_t count) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i c127 = _mm_set1_epi32(127);
  const __m128i c255_32 = _mm_set1_epi32(255);
  const __m128i c255 = _mm_set1_epi16(255);
  const __m128i one = _mm_set1_epi16(1);
  const __m128i alpha = _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
  // Spread the weight of pixels 0 and 1 (and 2 and 3) over their four channels.
  const __m128i dup01 = _mm_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3);
  const __m128i dup23 = _mm_setr_epi8(4, 5, 4, 5, 4, 5, 4, 5, 6, 7, 6, 7, 6, 7, 6, 7);
  int32_t x = 0;
  for (; x + 4 <= count; x += 4, p += 16, s += 16, w += 16, out += 16, guide += 4 * guide_step) {
    const __m128i t = _mm_setr_epi32(table[guide[0]], table[guide[guide_step]], table[guide[2 * guide_step]],
                                     table[guide[3 * guide_step]]);
    const __m128i far = _mm_cmpgt_epi32(t, c127);
    const __m128i t2 = _mm_add_epi32(t, t);
    const __m128i wa32 = _mm_blendv_epi8(_mm_sub_epi32(c255_32, t2), _mm_sub_epi32(t2, c255_32), far);
    const __m128i wa16 = _mm_packs_epi32(wa32, wa32);
    const __m128i far16 = _mm_packs_epi32(far, far);

    const __m128i vp = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i vs = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
    const __m128i vw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(w));
    __m128i res[2];
    for (int32_t h = 0; h < 2; ++h) {
      const __m128i dup = h == 0 ? dup01 : dup23;
      const __m128i wa = _mm_shuffle_epi8(wa16, dup);
      const __m128i sel = _mm_shuffle_epi8(far16, dup);
      const __m128i p16 = h == 0 ? _mm_unpacklo_epi8(vp, zero) : _mm_unpackhi_epi8(vp, zero);
      const __m128i s16 = h == 0 ? _mm_unpacklo_epi8(vs, zero) : _mm_unpackhi_epi8(vs, zero);
      const __m128i w16 = h == 0 ? _mm_unpacklo_epi8(vw, zero) : _mm_unpackhi_epi8(vw, zero);
      const __m128i a16 = _mm_blendv_epi8(p16, s16, sel);
      const __m128i mix = _mm_add_epi16(_mm_mullo_epi16(a16, wa), _mm_mullo_epi16(w16, _mm_sub_epi16(c255, wa)));
      res[h] = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(mix, _mm_srli_epi16(mix, 8)), one), 8);
    }
    const __m128i packed = _mm_packus_epi16(res[0], res[1]);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_blendv_epi8(packed, vp, alpha));
  }
  if (x < count) FocusBlendRowPlain(p, s, w, guide, guide_step, table, out, count - x);
}

}  // namespace

int32_t FocusBlend_SSE(ThreadJob* job, int32_t* result) { return RunFocusBlend(job, result, BlendRowSse); }

}  // namespace Korvane
