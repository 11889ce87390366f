// AVX2 form of the focus blend: eight pixels per step in 16-bit lanes, the
// same integer steps as the SSE4.1 form. The in-lane unpacks put pixels
// 0, 1, 4, 5 in the low halves and 2, 3, 6, 7 in the high halves, and the
// in-lane pack puts them back in order, so no lane crossing is needed.
#include <immintrin.h>

#include "core/FocusBlend.h"

namespace Korvane {

namespace {

void BlendRowAvx2(const uint8_t* p, const uint8_t* s, const uint8_t* w, const uint8_t* guide, int32_t guide_step,
                  const int32_t* table, uint8_t* out, int32_t count) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i c127 = _mm256_set1_epi32(127);
  const __m256i c255_32 = _mm256_set1_epi32(255);
  const __m256i c255 = _mm256_set1_epi16(255);
  const __m256i one = _mm256_set1_epi16(1);
  const __m256i alpha = _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
  // Per 128-bit lane: the weights of its first two pixels (and its last two)
  // over their four channels.
  const __m256i dup_lo =
      _mm256_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3, 0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3);
  const __m256i dup_hi =
      _mm256_setr_epi8(4, 5, 4, 5, 4, 5, 4, 5, 6, 7, 6, 7, 6, 7, 6, 7, 4, 5, 4, 5, 4, 5, 4, 5, 6, 7, 6, 7, 6, 7, 6, 7);
  int32_t x = 0;
  for (; x + 8 <= count; x += 8, p += 32, s += 32, w += 32, out += 32, guide += 8 * guide_step) {
    const __m256i t =
        _mm256_setr_epi32(table[guide[0]], table[guide[guide_step]], table[guide[2 * guide_step]],
                          table[guide[3 * guide_step]], table[guide[4 * guide_step]], table[guide[5 * guide_step]],
                          table[guide[6 * guide_step]], table[guide[7 * guide_step]]);
    const __m256i far = _mm256_cmpgt_epi32(t, c127);
    const __m256i t2 = _mm256_add_epi32(t, t);
    const __m256i wa32 = _mm256_blendv_epi8(_mm256_sub_epi32(c255_32, t2), _mm256_sub_epi32(t2, c255_32), far);
    const __m256i wa16 = _mm256_packs_epi32(wa32, wa32);
    const __m256i far16 = _mm256_packs_epi32(far, far);

    const __m256i vp = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const __m256i vs = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    const __m256i vw = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w));
    __m256i res[2];
    for (int32_t h = 0; h < 2; ++h) {
      const __m256i dup = h == 0 ? dup_lo : dup_hi;
      const __m256i wa = _mm256_shuffle_epi8(wa16, dup);
      const __m256i sel = _mm256_shuffle_epi8(far16, dup);
      const __m256i p16 = h == 0 ? _mm256_unpacklo_epi8(vp, zero) : _mm256_unpackhi_epi8(vp, zero);
      const __m256i s16 = h == 0 ? _mm256_unpacklo_epi8(vs, zero) : _mm256_unpackhi_epi8(vs, zero);
      const __m256i w16 = h == 0 ? _mm256_unpacklo_epi8(vw, zero) : _mm256_unpackhi_epi8(vw, zero);
      const __m256i a16 = _mm256_blendv_epi8(p16, s16, sel);
      const __m256i mix =
          _mm256_add_epi16(_mm256_mullo_epi16(a16, wa), _mm256_mullo_epi16(w16, _mm256_sub_epi16(c255, wa)));
      res[h] = _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(mix, _mm256_srli_epi16(mix, 8)), one), 8);
    }
    const __m256i packed = _mm256_packus_epi16(res[0], res[1]);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_blendv_epi8(packed, vp, alpha));
  }
  // The last pixels: the plain row, which gives the same bytes.
  if (x < count) FocusBlendRowPlain(p, s, w, guide, guide_step, table, out, count - x);
}

}  // namespace

int32_t FocusBlend_AVX2(ThreadJob* job, int32_t* result) { return RunFocusBlend(job, result, BlendRowAvx2); }

}  // namespace Korvane
