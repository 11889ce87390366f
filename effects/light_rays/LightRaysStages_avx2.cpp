// AVX2 form of the colour stage: eight pixels through the integer HSV round
// trip at once, every branch of the conversions taken per lane by masks.
//
// The conversions' divisions are done in float: for integers 0 <= a < 2^24
// and d >= 1, the rounded quotient a / d never reaches the next integer
// (its error is below a / d x 2^-24 < 1 / d), so truncating it gives the
// integer quotient exactly. Numerators that may be larger are first divided
// by a power of two (floor(floor(a / m) / n) = floor(a / (m n))). The bytes
// are those of the plain form.
#include <immintrin.h>

#include "core/ColorSpace.h"
#include "core/ImageChecks.h"
#include "core/LightMap.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {

namespace {

inline __m256i I(int32_t v) { return _mm256_set1_epi32(v); }

// floor(a / d) for 0 <= a < 2^24 and d >= 1 in every lane.
inline __m256i Quotient(__m256i a, __m256i d) {
  return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(a), _mm256_cvtepi32_ps(d)));
}
inline __m256i Quotient(__m256i a, float d) {
  return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(a), _mm256_set1_ps(d)));
}

// RgbToHsv of eight 8-bit colours: hue, saturation and value.
inline void ToHsv(__m256i r, __m256i g, __m256i b, __m256i& h, __m256i& s, __m256i& v) {
  const __m256i mx = _mm256_max_epi32(r, _mm256_max_epi32(g, b));
  const __m256i mn = _mm256_min_epi32(r, _mm256_min_epi32(g, b));
  const __m256i c = _mm256_sub_epi32(mx, mn);
  const __m256i zero = _mm256_setzero_si256();
  v = _mm256_slli_epi32(mx, 7);
  // c x kHsvMax / mx rounded (n >= 0); 0 for black (mx = 0, where the
  // divisor is taken as 1 to keep the lane finite).
  const __m256i black = _mm256_cmpeq_epi32(mx, zero);
  const __m256i sat = Quotient(_mm256_add_epi32(_mm256_mullo_epi32(c, I(kHsvMax)), _mm256_srli_epi32(mx, 1)),
                               _mm256_max_epi32(mx, I(1)));
  s = _mm256_andnot_si256(black, sat);
  // The hue's sector by the largest channel, red first, then green.
  const __m256i by_r = _mm256_cmpeq_epi32(mx, r);
  const __m256i by_g = _mm256_andnot_si256(by_r, _mm256_cmpeq_epi32(mx, g));
  const __m256i by_b = _mm256_andnot_si256(_mm256_or_si256(by_r, by_g), _mm256_set1_epi32(-1));
  const __m256i diff = _mm256_or_si256(
      _mm256_or_si256(_mm256_and_si256(by_r, _mm256_sub_epi32(g, b)), _mm256_and_si256(by_g, _mm256_sub_epi32(b, r))),
      _mm256_and_si256(by_b, _mm256_sub_epi32(r, g)));
  const __m256i base = _mm256_or_si256(_mm256_and_si256(by_g, I(2 * kHueSector)), _mm256_and_si256(by_b, I(4 * kHueSector)));
  // n / c rounded, halves away from zero: the quotient of |n| + c / 2, signed back.
  const __m256i n = _mm256_mullo_epi32(diff, I(kHueSector));
  const __m256i grey = _mm256_cmpeq_epi32(c, zero);
  const __m256i q = Quotient(_mm256_add_epi32(_mm256_abs_epi32(n), _mm256_srli_epi32(c, 1)), _mm256_max_epi32(c, I(1)));
  __m256i hue = _mm256_sign_epi32(q, n);
  // Red's hues below 0 wrap once.
  hue = _mm256_add_epi32(hue, _mm256_and_si256(_mm256_and_si256(by_r, _mm256_cmpgt_epi32(zero, hue)), I(kHueFull)));
  h = _mm256_andnot_si256(grey, _mm256_add_epi32(base, hue));
}

// Which of chroma, the intermediate and 0 a channel takes in each of the
// six sectors: lane k of a table is the mask for sector k.
struct SectorTable {
  __m256i chroma, between;
};

// Sectors 0 .. 5: r = c x 0 0 x c, g = x c c x 0 0, b = 0 0 x c c x.
struct Sectors {
  SectorTable r{_mm256_setr_epi32(-1, 0, 0, 0, 0, -1, 0, 0), _mm256_setr_epi32(0, -1, 0, 0, -1, 0, 0, 0)};
  SectorTable g{_mm256_setr_epi32(0, -1, -1, 0, 0, 0, 0, 0), _mm256_setr_epi32(-1, 0, 0, -1, 0, 0, 0, 0)};
  SectorTable b{_mm256_setr_epi32(0, 0, 0, -1, -1, 0, 0, 0), _mm256_setr_epi32(0, 0, -1, 0, 0, -1, 0, 0)};
};

inline __m256i Place(const SectorTable& t, __m256i sector, __m256i c, __m256i x) {
  return _mm256_or_si256(_mm256_and_si256(_mm256_permutevar8x32_epi32(t.chroma, sector), c),
                         _mm256_and_si256(_mm256_permutevar8x32_epi32(t.between, sector), x));
}

// HsvToRgb of eight colours whose hue lies in 0 .. 35999: B, G, R bytes in
// the low three bytes of each lane.
inline __m256i ToBgr(const Sectors& t, __m256i h, __m256i s, __m256i v) {
  const __m256i zero = _mm256_setzero_si256();
  s = _mm256_max_epi32(_mm256_min_epi32(s, I(kHsvMax)), zero);
  v = _mm256_max_epi32(_mm256_min_epi32(v, I(kHsvMax)), zero);
  // (v s + kHsvMax / 2) / kHsvMax: below 2^31, divided by 128 first.
  const __m256i c = Quotient(_mm256_srli_epi32(_mm256_add_epi32(_mm256_mullo_epi32(v, s), I(kHsvMax / 2)), 7), 255.0f);
  const __m256i sector = Quotient(h, static_cast<float>(kHueSector));
  const __m256i f = _mm256_sub_epi32(h, _mm256_mullo_epi32(sector, I(kHueSector)));
  const __m256i odd = _mm256_cmpeq_epi32(_mm256_and_si256(sector, I(1)), I(1));
  const __m256i ramp = _mm256_blendv_epi8(f, _mm256_sub_epi32(I(kHueSector), f), odd);
  // (c ramp + 3000) / 6000: below 2^28, divided by 16 first.
  const __m256i x =
      Quotient(_mm256_srli_epi32(_mm256_add_epi32(_mm256_mullo_epi32(c, ramp), I(kHueSector / 2)), 4), 375.0f);
  const __m256i m = _mm256_add_epi32(_mm256_sub_epi32(v, c), I(64));
  const __m256i r = _mm256_srli_epi32(_mm256_add_epi32(Place(t.r, sector, c, x), m), 7);
  const __m256i g = _mm256_srli_epi32(_mm256_add_epi32(Place(t.g, sector, c, x), m), 7);
  const __m256i b = _mm256_srli_epi32(_mm256_add_epi32(Place(t.b, sector, c, x), m), 7);
  return _mm256_or_si256(b, _mm256_or_si256(_mm256_slli_epi32(g, 8), _mm256_slli_epi32(r, 16)));
}

}  // namespace

int32_t PostProcess_AVX2(const PostProcessParam& p, const Rect& band) {
  if (!p.img || !p.img->data || !p.value_lut || !p.sat_lut) return E_POINTER;
  const Rect r = Clip(band, p.img->width, p.img->height);
  const __m256i colour = I(0x00FFFFFF), low = I(0xFF);
  const __m256i shift = I(p.hue_shift);
  const Sectors sectors;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    uint8_t* row = RowPtr(*p.img, y);
    int32_t x = r.left;
    for (; x + 8 <= r.right; x += 8) {
      uint8_t* px = row + 4 * x;
      const __m256i in = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(px));
      const __m256i black = _mm256_cmpeq_epi32(_mm256_and_si256(in, colour), _mm256_setzero_si256());
      if (_mm256_movemask_epi8(black) == -1) continue;  // both tables keep 0 at 0
      const __m256i b = _mm256_and_si256(in, low);
      const __m256i g = _mm256_and_si256(_mm256_srli_epi32(in, 8), low);
      const __m256i rr = _mm256_and_si256(_mm256_srli_epi32(in, 16), low);
      __m256i h, s, v;
      ToHsv(rr, g, b, h, s, v);
      s = _mm256_min_epi32(_mm256_i32gather_epi32(p.sat_lut, _mm256_min_epi32(_mm256_srli_epi32(s, 7), I(255)), 4),
                           I(kHsvMax));
      v = _mm256_min_epi32(_mm256_i32gather_epi32(p.value_lut, _mm256_srli_epi32(v, 7), 4), I(kHsvMax));
      // WrapHue by kLightRaysHueTurn: one wrap each way, then held in range.
      const __m256i turn = I(kLightRaysHueTurn);
      h = _mm256_add_epi32(h, shift);
      h = _mm256_sub_epi32(h, _mm256_and_si256(_mm256_cmpgt_epi32(h, turn), turn));
      h = _mm256_add_epi32(h, _mm256_and_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), h), turn));
      h = _mm256_max_epi32(_mm256_min_epi32(h, turn), _mm256_setzero_si256());
      const __m256i out = _mm256_or_si256(ToBgr(sectors, h, s, v), _mm256_andnot_si256(colour, in));
      // Black pixels are left as they are.
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(px), _mm256_blendv_epi8(out, in, black));
    }
    if (x < r.right) PostProcess(p, Rect{x, y, r.right, y + 1});
  }
  return S_OK;
}

}  // namespace Korvane
