// Eight-pixel SSE4.1 kernels of the byte blend modes. The blend formulas are
// the plain ones, instantiated over four 32-bit lanes: each group of four
// BGRA pixels is split into channel planes, so one lane is one pixel and the
// results match the per-pixel functions bit for bit.
#define KORVANE_GLOW_BLEND_FORMULAS 1
#include <smmintrin.h>

#include "effects/glow/GlowBlend.h"

namespace Korvane {
namespace {

// Four int32 lanes. Comparisons give all-ones lanes, which Sel consumes.
struct V {
  __m128i v;
  V() = default;
  V(__m128i x) : v(x) {}                  // NOLINT: implicit on purpose
  V(int32_t c) : v(_mm_set1_epi32(c)) {}  // NOLINT: constants broadcast
};

inline V operator+(V a, V b) { return _mm_add_epi32(a.v, b.v); }
inline V operator-(V a, V b) { return _mm_sub_epi32(a.v, b.v); }
inline V operator*(V a, V b) { return _mm_mullo_epi32(a.v, b.v); }
inline V operator&(V a, V b) { return _mm_and_si128(a.v, b.v); }
inline V operator>>(V a, int n) { return _mm_sra_epi32(a.v, _mm_cvtsi32_si128(n)); }
inline V Min(V a, V b) { return _mm_min_epi32(a.v, b.v); }
inline V Max(V a, V b) { return _mm_max_epi32(a.v, b.v); }
inline V Abs(V a) { return _mm_abs_epi32(a.v); }
inline V Lt(V a, V b) { return _mm_cmplt_epi32(a.v, b.v); }
inline V Gt(V a, V b) { return _mm_cmpgt_epi32(a.v, b.v); }
inline V Eq(V a, V b) { return _mm_cmpeq_epi32(a.v, b.v); }
inline V Le(V a, V b) { return _mm_xor_si128(_mm_cmpgt_epi32(a.v, b.v), _mm_set1_epi32(-1)); }
inline V Ge(V a, V b) { return _mm_xor_si128(_mm_cmplt_epi32(a.v, b.v), _mm_set1_epi32(-1)); }
inline V Or(V a, V b) { return _mm_or_si128(a.v, b.v); }
inline V Sel(V c, V a, V b) { return _mm_blendv_epi8(b.v, a.v, c.v); }

// Truncating n / q for 0 <= n < 2^24, 0 < q < 2^24: both convert exactly and
// the correctly rounded quotient never reaches the next integer, since its
// rounding error (< n / q * 2^-24) is below the gap 1 / q to it.
inline V Div(V n, V q) { return _mm_cvttps_epi32(_mm_div_ps(_mm_cvtepi32_ps(n.v), _mm_cvtepi32_ps(q.v))); }
inline V DivSmall(V n, V q) { return Div(n, q); }
// n / 255 for 0 <= n <= 65534: (n + 1 + (n >> 8)) >> 8.
inline V Div255(V n) {
  return _mm_srli_epi32(_mm_add_epi32(_mm_add_epi32(n.v, _mm_set1_epi32(1)), _mm_srli_epi32(n.v, 8)), 8);
}
inline V Sqrt16(V d) { return _mm_cvttps_epi32(_mm_mul_ps(_mm_sqrt_ps(_mm_cvtepi32_ps(d.v)), _mm_set1_ps(16.0f))); }

}  // namespace

// `count` pixels, a multiple of 4 (the row tasks pass multiples of 8).
template <int Slot>
void GlowBlend8_SSE4(const uint8_t* s, const uint8_t* d, uint8_t* out, int32_t count, int32_t opacity) {
  // Transposes four BGRA pixels into B, G, R, A planes and back (self-inverse).
  const __m128i planes = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const V o(opacity);
  // Over an opaque photo with an opaque glow the frame reduces to constant
  // weights: a = (255 * o) >> 8, wd = 255 - a, ws = 0, wb = a, Ao = 255.
  // Clamping the numerator to 65534 keeps every quotient above 255 above it.
  const int32_t a0 = (255 * opacity) >> 8;
  const V wd0(255 - a0), wb0(a0);
  const bool constant_weights = a0 > 0;
  for (int32_t i = 0; i < count; i += 4) {
    const __m128i sp = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i * 4)), planes);
    const __m128i dp = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(d + i * 4)), planes);
    const V sv[3] = {_mm_cvtepu8_epi32(sp), _mm_cvtepu8_epi32(_mm_srli_si128(sp, 4)),
                     _mm_cvtepu8_epi32(_mm_srli_si128(sp, 8))};
    const V dv[3] = {_mm_cvtepu8_epi32(dp), _mm_cvtepu8_epi32(_mm_srli_si128(dp, 4)),
                     _mm_cvtepu8_epi32(_mm_srli_si128(dp, 8))};
    V f[3];
    BlendMode<Slot>::Apply(sv, dv, f);
    __m128i* dst = reinterpret_cast<__m128i*>(out + i * 4);
    if (constant_weights && _mm_extract_epi32(_mm_and_si128(sp, dp), 3) == -1) {
      V r[3];
      for (int k = 0; k < 3; ++k) r[k] = Min(Div255(Min(Max(dv[k] * wd0 + wb0 * f[k], 0), 65534)), 255);
      const __m128i bg = _mm_packus_epi32(r[0].v, r[1].v);
      const __m128i ra = _mm_packus_epi32(r[2].v, _mm_set1_epi32(255));
      _mm_storeu_si128(dst, _mm_shuffle_epi8(_mm_packus_epi16(bg, ra), planes));
      continue;
    }
    const V as = _mm_cvtepu8_epi32(_mm_srli_si128(sp, 12));
    const V ad = _mm_cvtepu8_epi32(_mm_srli_si128(dp, 12));
    const Composited<V> c = Composite<V>(sv, as, dv, ad, f, o);
    const __m128i bg = _mm_packus_epi32(c.out[0].v, c.out[1].v);
    const __m128i ra = _mm_packus_epi32(c.out[2].v, c.alpha.v);
    const __m128i px = _mm_shuffle_epi8(_mm_packus_epi16(bg, ra), planes);
    // Lane i of the write mask covers the four bytes of pixel i.
    _mm_storeu_si128(dst, _mm_blendv_epi8(_mm_loadu_si128(dst), px, c.write.v));
  }
}

#define KORVANE_GLOW_SSE4(SLOT) \
  template void GlowBlend8_SSE4<SLOT>(const uint8_t*, const uint8_t*, uint8_t*, int32_t, int32_t);
KORVANE_GLOW_SSE4(0)
KORVANE_GLOW_SSE4(1)
KORVANE_GLOW_SSE4(2)
KORVANE_GLOW_SSE4(3)
KORVANE_GLOW_SSE4(4)
KORVANE_GLOW_SSE4(5)
KORVANE_GLOW_SSE4(6)
KORVANE_GLOW_SSE4(7)
KORVANE_GLOW_SSE4(8)
KORVANE_GLOW_SSE4(9)
KORVANE_GLOW_SSE4(10)
KORVANE_GLOW_SSE4(11)
KORVANE_GLOW_SSE4(12)
KORVANE_GLOW_SSE4(13)
KORVANE_GLOW_SSE4(16)
KORVANE_GLOW_SSE4(17)
KORVANE_GLOW_SSE4(18)
KORVANE_GLOW_SSE4(19)
KORVANE_GLOW_SSE4(20)
KORVANE_GLOW_SSE4(21)
KORVANE_GLOW_SSE4(22)
KORVANE_GLOW_SSE4(23)
KORVANE_GLOW_SSE4(24)
KORVANE_GLOW_SSE4(25)
KORVANE_GLOW_SSE4(26)
KORVANE_GLOW_SSE4(27)
KORVANE_GLOW_SSE4(28)
KORVANE_GLOW_SSE4(29)
KORVANE_GLOW_SSE4(30)
KORVANE_GLOW_SSE4(31)
KORVANE_GLOW_SSE4(32)
KORVANE_GLOW_SSE4(33)
KORVANE_GLOW_SSE4(34)
KORVANE_GLOW_SSE4(35)
KORVANE_GLOW_SSE4(36)
KORVANE_GLOW_SSE4(37)
#undef KORVANE_GLOW_SSE4

}  // namespace Korvane
