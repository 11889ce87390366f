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

// ---------------------------------------------------------------------------
// Eight opaque pixels in 16-bit lanes. Over an opaque photo with an opaque
// glow the frame is d * wd0 + f * wb0 with wd0 + wb0 = 255. For the slots
// below F stays within 0..255, so the sum stays within 255 * 255 and needs
// neither clamp nor 32-bit lanes; addition (F = s + d) reduces to
// d + (s * wb0) / 255, saturated. Slots without such a form return false.

// n / 255 for 0 <= n <= 65025 in unsigned 16-bit lanes (no overflow there).
inline __m128i Div255U16(__m128i n) {
  return _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(n, _mm_set1_epi16(1)), _mm_srli_epi16(n, 8)), 8);
}

template <int Slot>
struct Opaque16 {
  static constexpr bool kOn = Slot == 0 || Slot == 1 || Slot == 2 || Slot == 3 || Slot == 5 || Slot == 6 ||
                              Slot == 8 || Slot == 12 || Slot == 29 || Slot == 30 || Slot == 31 || Slot == 37;
  // F on u16 lanes holding 0..255.
  static __m128i F(__m128i s, __m128i d) {
    const __m128i k255 = _mm_set1_epi16(255);
    if constexpr (Slot == 1) return _mm_min_epu16(s, d);
    if constexpr (Slot == 2) return Div255U16(_mm_mullo_epi16(s, d));
    if constexpr (Slot == 3) return _mm_subs_epu16(_mm_add_epi16(s, d), k255);
    if constexpr (Slot == 5) return _mm_max_epu16(s, d);
    if constexpr (Slot == 6) {
      return _mm_sub_epi16(k255, Div255U16(_mm_mullo_epi16(_mm_sub_epi16(k255, s), _mm_sub_epi16(k255, d))));
    }
    if constexpr (Slot == 8 || Slot == 29) return _mm_min_epu16(_mm_add_epi16(s, d), k255);
    if constexpr (Slot == 12) return _mm_sub_epi16(_mm_max_epu16(s, d), _mm_min_epu16(s, d));
    if constexpr (Slot == 31) return _mm_subs_epu16(d, s);
    (void)d;
    return s;  // 0, 37
  }
  // One channel of the composite; the pack to bytes saturates.
  static __m128i Out(__m128i s, __m128i d, __m128i wd0, __m128i wb0) {
    if constexpr (Slot == 30) return _mm_add_epi16(d, Div255U16(_mm_mullo_epi16(s, wb0)));
    return Div255U16(_mm_add_epi16(_mm_mullo_epi16(d, wd0), _mm_mullo_epi16(F(s, d), wb0)));
  }
};

// Blends eight pixels when all sixteen alphas are 255; false leaves them.
template <int Slot>
inline bool Blend8Opaque(const uint8_t* s, const uint8_t* d, uint8_t* out, __m128i wd0, __m128i wb0) {
  const __m128i s0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
  const __m128i s1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16));
  const __m128i d0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d));
  const __m128i d1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + 16));
  const __m128i all = _mm_and_si128(_mm_and_si128(s0, s1), _mm_and_si128(d0, d1));
  if ((_mm_movemask_epi8(_mm_cmpeq_epi8(all, _mm_set1_epi8(-1))) & 0x8888) != 0x8888) return false;
  // B, G, R, A planes of four pixels each, then B, G, R as eight u16 lanes.
  const __m128i planes = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const __m128i zero = _mm_setzero_si128();
  auto split = [&](__m128i v0, __m128i v1, __m128i c[3]) {
    const __m128i p0 = _mm_shuffle_epi8(v0, planes), p1 = _mm_shuffle_epi8(v1, planes);
    const __m128i bg = _mm_unpacklo_epi32(p0, p1), ra = _mm_unpackhi_epi32(p0, p1);
    c[0] = _mm_unpacklo_epi8(bg, zero);
    c[1] = _mm_unpackhi_epi8(bg, zero);
    c[2] = _mm_unpacklo_epi8(ra, zero);
  };
  __m128i sc[3], dc[3];
  split(s0, s1, sc);
  split(d0, d1, dc);
  const __m128i b = Opaque16<Slot>::Out(sc[0], dc[0], wd0, wb0);
  const __m128i g = Opaque16<Slot>::Out(sc[1], dc[1], wd0, wb0);
  const __m128i r = Opaque16<Slot>::Out(sc[2], dc[2], wd0, wb0);
  const __m128i bg = _mm_packus_epi16(b, g);                       // B0..7 G0..7
  const __m128i ra = _mm_packus_epi16(r, _mm_set1_epi16(255));    // R0..7 A0..7
  const __m128i br = _mm_unpacklo_epi8(bg, ra), ga = _mm_unpackhi_epi8(bg, ra);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(br, ga));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), _mm_unpackhi_epi8(br, ga));
  return true;
}

}  // namespace

// `count` pixels, a multiple of 4 (the row tasks pass multiples of 8).
template <int Slot>
void GlowBlend8_SSE(const uint8_t* s, const uint8_t* d, uint8_t* out, int32_t count, int32_t opacity) {
  // Transposes four BGRA pixels into B, G, R, A planes and back (self-inverse).
  const __m128i planes = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const V o(opacity);
  // Over an opaque photo with an opaque glow the frame reduces to constant
  // weights: a = (255 * o) >> 8, wd = 255 - a, ws = 0, wb = a, Ao = 255.
  // Clamping the numerator to 65534 keeps every quotient above 255 above it.
  const int32_t a0 = (255 * opacity) >> 8;
  const V wd0(255 - a0), wb0(a0);
  const bool constant_weights = a0 > 0;
  const __m128i wd16 = _mm_set1_epi16(static_cast<int16_t>(255 - a0)), wb16 = _mm_set1_epi16(static_cast<int16_t>(a0));
  for (int32_t i = 0; i < count; i += 4) {
    if constexpr (Opaque16<Slot>::kOn) {
      if (constant_weights && i + 8 <= count && Blend8Opaque<Slot>(s + i * 4, d + i * 4, out + i * 4, wd16, wb16)) {
        i += 4;
        continue;
      }
    }
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

#define KORVANE_GLOW_SSE(SLOT) \
  template void GlowBlend8_SSE<SLOT>(const uint8_t*, const uint8_t*, uint8_t*, int32_t, int32_t);
KORVANE_GLOW_SSE(0)
KORVANE_GLOW_SSE(1)
KORVANE_GLOW_SSE(2)
KORVANE_GLOW_SSE(3)
KORVANE_GLOW_SSE(4)
KORVANE_GLOW_SSE(5)
KORVANE_GLOW_SSE(6)
KORVANE_GLOW_SSE(7)
KORVANE_GLOW_SSE(8)
KORVANE_GLOW_SSE(9)
KORVANE_GLOW_SSE(10)
KORVANE_GLOW_SSE(11)
KORVANE_GLOW_SSE(12)
KORVANE_GLOW_SSE(13)
KORVANE_GLOW_SSE(16)
KORVANE_GLOW_SSE(17)
KORVANE_GLOW_SSE(18)
KORVANE_GLOW_SSE(19)
KORVANE_GLOW_SSE(20)
KORVANE_GLOW_SSE(21)
KORVANE_GLOW_SSE(22)
KORVANE_GLOW_SSE(23)
KORVANE_GLOW_SSE(24)
KORVANE_GLOW_SSE(25)
KORVANE_GLOW_SSE(26)
KORVANE_GLOW_SSE(27)
KORVANE_GLOW_SSE(28)
KORVANE_GLOW_SSE(29)
KORVANE_GLOW_SSE(30)
KORVANE_GLOW_SSE(31)
KORVANE_GLOW_SSE(32)
KORVANE_GLOW_SSE(33)
KORVANE_GLOW_SSE(34)
KORVANE_GLOW_SSE(35)
KORVANE_GLOW_SSE(36)
KORVANE_GLOW_SSE(37)
#undef KORVANE_GLOW_SSE

}  // namespace Korvane
