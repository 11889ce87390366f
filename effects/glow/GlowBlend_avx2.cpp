// Eight-pixel AVX2 kernels of the blend modes. The byte blend formulas are
// the plain ones, instantiated over eight 32-bit lanes: each group of eight
// BGRA pixels is split into channel planes, so one lane is one pixel and the
// results match the per-pixel functions bit for bit. Opaque runs go sixteen
// pixels at a time in 16-bit lanes, as the SSE4.1 form does with eight. The
// float modes (hue, saturation) repeat the plain form's float operations in
// the same order, every branch computed and selected per lane.
#define KORVANE_GLOW_BLEND_FORMULAS 1
#include <immintrin.h>

#include <cstddef>

#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "effects/glow/GlowBlend.h"

namespace Korvane {
namespace {

// Eight int32 lanes. Comparisons give all-ones lanes, which Sel consumes.
struct V {
  __m256i v;
  V() = default;
  V(__m256i x) : v(x) {}                     // NOLINT: implicit on purpose
  V(int32_t c) : v(_mm256_set1_epi32(c)) {}  // NOLINT: constants broadcast
};

inline V operator+(V a, V b) { return _mm256_add_epi32(a.v, b.v); }
inline V operator-(V a, V b) { return _mm256_sub_epi32(a.v, b.v); }
inline V operator*(V a, V b) { return _mm256_mullo_epi32(a.v, b.v); }
inline V operator&(V a, V b) { return _mm256_and_si256(a.v, b.v); }
inline V operator>>(V a, int n) { return _mm256_sra_epi32(a.v, _mm_cvtsi32_si128(n)); }
inline V Min(V a, V b) { return _mm256_min_epi32(a.v, b.v); }
inline V Max(V a, V b) { return _mm256_max_epi32(a.v, b.v); }
inline V Abs(V a) { return _mm256_abs_epi32(a.v); }
inline V Lt(V a, V b) { return _mm256_cmpgt_epi32(b.v, a.v); }
inline V Gt(V a, V b) { return _mm256_cmpgt_epi32(a.v, b.v); }
inline V Eq(V a, V b) { return _mm256_cmpeq_epi32(a.v, b.v); }
inline V Le(V a, V b) { return _mm256_xor_si256(_mm256_cmpgt_epi32(a.v, b.v), _mm256_set1_epi32(-1)); }
inline V Ge(V a, V b) { return _mm256_xor_si256(_mm256_cmpgt_epi32(b.v, a.v), _mm256_set1_epi32(-1)); }
inline V Or(V a, V b) { return _mm256_or_si256(a.v, b.v); }
inline V Sel(V c, V a, V b) { return _mm256_blendv_epi8(b.v, a.v, c.v); }

// Truncating n / q for 0 <= n < 2^24, 0 < q < 2^24, exact through a
// single-precision quotient (see the SSE4.1 form for the argument).
inline V Div(V n, V q) { return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(n.v), _mm256_cvtepi32_ps(q.v))); }
inline V DivSmall(V n, V q) { return Div(n, q); }
// n / 255 for 0 <= n <= 65534: (n + 1 + (n >> 8)) >> 8.
inline V Div255(V n) {
  return _mm256_srli_epi32(_mm256_add_epi32(_mm256_add_epi32(n.v, _mm256_set1_epi32(1)), _mm256_srli_epi32(n.v, 8)), 8);
}
inline V Sqrt16(V d) {
  return _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_sqrt_ps(_mm256_cvtepi32_ps(d.v)), _mm256_set1_ps(16.0f)));
}

// Per 128-bit lane: four BGRA pixels to B, G, R, A planes and back (self-inverse).
inline __m256i Planes() {
  return _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15, 0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14,
                          3, 7, 11, 15);
}

// Eight BGRA pixels as B0..7 G0..7 (low half) and R0..7 A0..7 (high half).
inline __m256i SplitEight(const uint8_t* p) {
  const __m256i planes = _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)), Planes());
  return _mm256_permutevar8x32_epi32(planes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

// ---------------------------------------------------------------------------
// Sixteen opaque pixels in 16-bit lanes: the constant-weight frame
// d * wd0 + F * wb0 of the SSE4.1 form's eight-pixel path, same slots.

inline __m256i Div255U16(__m256i n) {
  return _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(n, _mm256_set1_epi16(1)), _mm256_srli_epi16(n, 8)), 8);
}

template <int Slot>
struct Opaque16 {
  static constexpr bool kOn = Slot == 0 || Slot == 1 || Slot == 2 || Slot == 3 || Slot == 5 || Slot == 6 || Slot == 8 ||
                              Slot == 12 || Slot == 29 || Slot == 30 || Slot == 31 || Slot == 37;
  static __m256i F(__m256i s, __m256i d) {
    const __m256i k255 = _mm256_set1_epi16(255);
    if constexpr (Slot == 1) return _mm256_min_epu16(s, d);
    if constexpr (Slot == 2) return Div255U16(_mm256_mullo_epi16(s, d));
    if constexpr (Slot == 3) return _mm256_subs_epu16(_mm256_add_epi16(s, d), k255);
    if constexpr (Slot == 5) return _mm256_max_epu16(s, d);
    if constexpr (Slot == 6) {
      return _mm256_sub_epi16(k255,
                              Div255U16(_mm256_mullo_epi16(_mm256_sub_epi16(k255, s), _mm256_sub_epi16(k255, d))));
    }
    if constexpr (Slot == 8 || Slot == 29) return _mm256_min_epu16(_mm256_add_epi16(s, d), k255);
    if constexpr (Slot == 12) return _mm256_sub_epi16(_mm256_max_epu16(s, d), _mm256_min_epu16(s, d));
    if constexpr (Slot == 31) return _mm256_subs_epu16(d, s);
    (void)d;
    return s;  // 0, 37
  }
  static __m256i Out(__m256i s, __m256i d, __m256i wd0, __m256i wb0) {
    if constexpr (Slot == 30) return _mm256_add_epi16(d, Div255U16(_mm256_mullo_epi16(s, wb0)));
    return Div255U16(_mm256_add_epi16(_mm256_mullo_epi16(d, wd0), _mm256_mullo_epi16(F(s, d), wb0)));
  }
};

// Sixteen pixels as B, G, R in sixteen u16 lanes each.
inline void SplitSixteen(const uint8_t* p, __m256i c[3]) {
  const __m256i lo = SplitEight(p), hi = SplitEight(p + 32);  // [B G | R A] of pixels 0..7 and 8..15
  const __m256i br = _mm256_unpacklo_epi64(lo, hi);           // [B0..15 | R0..15]
  const __m256i ga = _mm256_unpackhi_epi64(lo, hi);           // [G0..15 | A0..15]
  c[0] = _mm256_cvtepu8_epi16(_mm256_castsi256_si128(br));
  c[1] = _mm256_cvtepu8_epi16(_mm256_castsi256_si128(ga));
  c[2] = _mm256_cvtepu8_epi16(_mm256_extracti128_si256(br, 1));
}

// Blends sixteen pixels when all thirty-two alphas are 255; false leaves them.
template <int Slot>
inline bool Blend16Opaque(const uint8_t* s, const uint8_t* d, uint8_t* out, __m256i wd0, __m256i wb0) {
  const __m256i s0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
  const __m256i s1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 32));
  const __m256i d0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(d));
  const __m256i d1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(d + 32));
  const __m256i all = _mm256_and_si256(_mm256_and_si256(s0, s1), _mm256_and_si256(d0, d1));
  const uint32_t ones = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(all, _mm256_set1_epi8(-1))));
  if ((ones & 0x88888888u) != 0x88888888u) return false;
  __m256i sc[3], dc[3];
  SplitSixteen(s, sc);
  SplitSixteen(d, dc);
  const __m256i b = Opaque16<Slot>::Out(sc[0], dc[0], wd0, wb0);
  const __m256i g = Opaque16<Slot>::Out(sc[1], dc[1], wd0, wb0);
  const __m256i r = Opaque16<Slot>::Out(sc[2], dc[2], wd0, wb0);
  const __m256i bg = _mm256_packus_epi16(b, g);                       // [B0..7 G0..7 | B8..15 G8..15]
  const __m256i ra = _mm256_packus_epi16(r, _mm256_set1_epi16(255));  // [R0..7 A0..7 | R8..15 A8..15]
  const __m256i br = _mm256_unpacklo_epi8(bg, ra), ga = _mm256_unpackhi_epi8(bg, ra);
  const __m256i q0 = _mm256_unpacklo_epi8(br, ga);  // pixels 0..3 | 8..11
  const __m256i q1 = _mm256_unpackhi_epi8(br, ga);  // pixels 4..7 | 12..15
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute2x128_si256(q0, q1, 0x20));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 32), _mm256_permute2x128_si256(q0, q1, 0x31));
  return true;
}

// Channel planes (eight u32 lanes each, values 0..255) back to eight BGRA pixels.
inline __m256i JoinEight(__m256i b, __m256i g, __m256i r, __m256i a) {
  const __m256i bg = _mm256_packus_epi32(b, g);  // [B0..3 G0..3 | B4..7 G4..7]
  const __m256i ra = _mm256_packus_epi32(r, a);
  return _mm256_shuffle_epi8(_mm256_packus_epi16(bg, ra), Planes());
}

}  // namespace

// `count` pixels, a multiple of 8 (the row tasks pass multiples of 8).
template <int Slot>
void GlowBlend8_AVX2(const uint8_t* s, const uint8_t* d, uint8_t* out, int32_t count, int32_t opacity) {
  const V o(opacity);
  // Over an opaque photo with an opaque glow the frame reduces to constant
  // weights: a = (255 * o) >> 8, wd = 255 - a, ws = 0, wb = a, Ao = 255.
  const int32_t a0 = (255 * opacity) >> 8;
  const V wd0(255 - a0), wb0(a0);
  const bool constant_weights = a0 > 0;
  const __m256i wd16 = _mm256_set1_epi16(static_cast<int16_t>(255 - a0));
  const __m256i wb16 = _mm256_set1_epi16(static_cast<int16_t>(a0));
  for (int32_t i = 0; i < count; i += 8) {
    if constexpr (Opaque16<Slot>::kOn) {
      if (constant_weights && i + 16 <= count && Blend16Opaque<Slot>(s + i * 4, d + i * 4, out + i * 4, wd16, wb16)) {
        i += 8;
        continue;
      }
    }
    const __m256i sp = SplitEight(s + i * 4), dp = SplitEight(d + i * 4);
    const __m128i s_bg = _mm256_castsi256_si128(sp), s_ra = _mm256_extracti128_si256(sp, 1);
    const __m128i d_bg = _mm256_castsi256_si128(dp), d_ra = _mm256_extracti128_si256(dp, 1);
    const V sv[3] = {_mm256_cvtepu8_epi32(s_bg), _mm256_cvtepu8_epi32(_mm_srli_si128(s_bg, 8)),
                     _mm256_cvtepu8_epi32(s_ra)};
    const V dv[3] = {_mm256_cvtepu8_epi32(d_bg), _mm256_cvtepu8_epi32(_mm_srli_si128(d_bg, 8)),
                     _mm256_cvtepu8_epi32(d_ra)};
    V f[3];
    BlendMode<Slot>::Apply(sv, dv, f);
    __m256i* dst = reinterpret_cast<__m256i*>(out + i * 4);
    if (constant_weights && _mm_extract_epi64(_mm_and_si128(s_ra, d_ra), 1) == -1) {
      V r[3];
      for (int k = 0; k < 3; ++k) r[k] = Min(Div255(Min(Max(dv[k] * wd0 + wb0 * f[k], 0), 65534)), 255);
      _mm256_storeu_si256(dst, JoinEight(r[0].v, r[1].v, r[2].v, _mm256_set1_epi32(255)));
      continue;
    }
    const V as = _mm256_cvtepu8_epi32(_mm_srli_si128(s_ra, 8));
    const V ad = _mm256_cvtepu8_epi32(_mm_srli_si128(d_ra, 8));
    const Composited<V> c = Composite<V>(sv, as, dv, ad, f, o);
    const __m256i px = JoinEight(c.out[0].v, c.out[1].v, c.out[2].v, c.alpha.v);
    // Lane i of the write mask covers the four bytes of pixel i.
    _mm256_storeu_si256(dst, _mm256_blendv_epi8(_mm256_loadu_si256(dst), px, c.write.v));
  }
}

// ---------------------------------------------------------------------------
// Float modes: the plain form's operations (GlowBlendFloat.cpp) on eight lanes.

namespace {

using F8 = __m256;

inline F8 Set(float v) { return _mm256_set1_ps(v); }
inline F8 Pick(F8 c, F8 a, F8 b) { return _mm256_blendv_ps(b, a, c); }
inline F8 Gt(F8 a, F8 b) { return _mm256_cmp_ps(a, b, _CMP_GT_OQ); }
inline F8 Lt(F8 a, F8 b) { return _mm256_cmp_ps(a, b, _CMP_LT_OQ); }
inline F8 Ge(F8 a, F8 b) { return _mm256_cmp_ps(a, b, _CMP_GE_OQ); }
inline F8 Eq(F8 a, F8 b) { return _mm256_cmp_ps(a, b, _CMP_EQ_OQ); }

// v > 0 ? (v < 255 ? v : 255) : 0, NaN to 0.
inline F8 Clamp255F(F8 v) { return _mm256_and_ps(Gt(v, Set(0.0f)), _mm256_min_ps(v, Set(255.0f))); }

// Colours are B, G, R planes.
inline F8 LumaF(const F8* c) {
  const F8 sum = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(c[1], Set(38665.0f)), _mm256_mul_ps(c[2], Set(19660.0f))),
                               _mm256_mul_ps(c[0], Set(7209.0f)));
  return _mm256_mul_ps(sum, Set(1.5258789e-5f));
}

// Chroma, and the largest channel in *hi (the channels are finite).
inline F8 ChromaF(const F8* c, F8* hi) {
  *hi = _mm256_max_ps(_mm256_max_ps(c[0], c[1]), c[2]);
  return _mm256_sub_ps(*hi, _mm256_min_ps(_mm256_min_ps(c[0], c[1]), c[2]));
}

// Hue on 0..1536; 0 for a grey. The red sector's value lies in 1280..1792,
// so one subtraction of 1536 takes it below 1536.
inline F8 HueF(const F8* c, F8 hi, F8 chroma) {
  const F8 k256 = Set(256.0f);
  F8 hr = _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(_mm256_sub_ps(c[1], c[0]), k256), chroma), Set(1536.0f));
  hr = Pick(Ge(hr, Set(1536.0f)), _mm256_sub_ps(hr, Set(1536.0f)), hr);
  const F8 hg = _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(_mm256_sub_ps(c[0], c[2]), k256), chroma), Set(512.0f));
  const F8 hb = _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(_mm256_sub_ps(c[2], c[1]), k256), chroma), Set(1024.0f));
  const F8 h = Pick(Eq(hi, c[2]), hr, Pick(Eq(hi, c[1]), hg, hb));
  return _mm256_and_ps(Gt(chroma, Set(0.0f)), h);
}

// A colour of hue h, chroma c and luminance l, clamped to 0..255.
inline void BuildF(F8 h, F8 c, F8 l, F8* out) {
  const F8 zero = _mm256_setzero_ps();
  const F8 turns = _mm256_cvtepi32_ps(_mm256_cvttps_epi32(_mm256_div_ps(h, Set(512.0f))));
  const F8 hr = _mm256_sub_ps(h, _mm256_mul_ps(Set(512.0f), turns));
  const F8 off = _mm256_andnot_ps(Set(-0.0f), _mm256_sub_ps(hr, Set(256.0f)));  // fabs
  const F8 x = _mm256_mul_ps(_mm256_mul_ps(_mm256_sub_ps(Set(256.0f), off), c), Set(0.00390625f));
  // (R, G, B) per sector: (c,x,0) (x,c,0) (0,c,x) (0,x,c) (x,0,c) (c,0,x).
  const F8 s1 = Lt(h, Set(256.0f)), s2 = Lt(h, Set(512.0f)), s3 = Lt(h, Set(768.0f));
  const F8 s4 = Lt(h, Set(1024.0f)), s5 = Lt(h, Set(1280.0f));
  const F8 r = Pick(s1, c, Pick(s2, x, Pick(s3, zero, Pick(s4, zero, Pick(s5, x, c)))));
  const F8 g = Pick(s1, x, Pick(s2, c, Pick(s3, c, Pick(s4, x, zero))));
  const F8 b = Pick(s1, zero, Pick(s2, zero, Pick(s3, x, Pick(s4, c, Pick(s5, c, x)))));
  const F8 col[3] = {b, g, r};
  const F8 shift = _mm256_sub_ps(l, LumaF(col));
  const F8 coloured = Gt(c, zero);
  const F8 grey = Clamp255F(l);
  for (int k = 0; k < 3; ++k) out[k] = Pick(coloured, Clamp255F(_mm256_add_ps(col[k], shift)), grey);
}

inline void HueMode(const F8* s, const F8* d, F8* f) {
  F8 hs, hd;
  const F8 cs = ChromaF(s, &hs);
  const F8 cd = ChromaF(d, &hd);
  BuildF(HueF(s, hs, cs), _mm256_and_ps(Gt(cs, Set(0.0f)), cd), LumaF(d), f);
}

inline void SaturationMode(const F8* s, const F8* d, F8* f) {
  F8 hs, hd;
  F8 c = ChromaF(s, &hs);
  const F8 cd = ChromaF(d, &hd);
  const F8 l = LumaF(d);
  c = Pick(Lt(cd, Set(5.0f)), _mm256_div_ps(_mm256_mul_ps(cd, c), Set(5.0f)), c);
  const F8 light = _mm256_div_ps(_mm256_mul_ps(_mm256_sub_ps(Set(255.0f), l), c), Set(75.0f));
  const F8 dark = _mm256_div_ps(_mm256_mul_ps(l, c), Set(60.0f));
  c = Pick(Gt(l, Set(180.0f)), light, Pick(Lt(l, Set(60.0f)), dark, c));
  BuildF(HueF(d, hd, cd), c, l, f);
}

// Eight pixels: the glow's floats at sr, the photo's BGRA at dp, into o.
template <bool kHue>
inline void Float8(const float* sr, const uint8_t* dp, uint8_t* o, const V& opacity) {
  alignas(32) float planes[3][8];
  for (int i = 0; i < 8; ++i)
    for (int k = 0; k < 3; ++k) planes[k][i] = sr[3 * i + k];
  F8 sf[3];
  for (int k = 0; k < 3; ++k) sf[k] = Clamp255F(_mm256_mul_ps(_mm256_load_ps(planes[k]), Set(255.0f)));
  const __m256i split = SplitEight(dp);
  const __m128i bg = _mm256_castsi256_si128(split), ra = _mm256_extracti128_si256(split, 1);
  const V dv[3] = {_mm256_cvtepu8_epi32(bg), _mm256_cvtepu8_epi32(_mm_srli_si128(bg, 8)), _mm256_cvtepu8_epi32(ra)};
  const V ad = _mm256_cvtepu8_epi32(_mm_srli_si128(ra, 8));
  const F8 df[3] = {_mm256_cvtepi32_ps(dv[0].v), _mm256_cvtepi32_ps(dv[1].v), _mm256_cvtepi32_ps(dv[2].v)};
  F8 ff[3];
  if (kHue)
    HueMode(sf, df, ff);
  else
    SaturationMode(sf, df, ff);
  V sv[3], fv[3];
  for (int k = 0; k < 3; ++k) {
    sv[k] = _mm256_cvttps_epi32(_mm256_add_ps(sf[k], Set(0.5f)));
    fv[k] = _mm256_cvttps_epi32(_mm256_add_ps(ff[k], Set(0.5f)));
  }
  const Composited<V> c = Composite<V>(sv, V(255), dv, ad, fv, opacity);
  const __m256i px = JoinEight(c.out[0].v, c.out[1].v, c.out[2].v, c.alpha.v);
  __m256i* dst = reinterpret_cast<__m256i*>(o);
  _mm256_storeu_si256(dst, _mm256_blendv_epi8(_mm256_loadu_si256(dst), px, c.write.v));
}

template <bool kHue>
int32_t FloatRows(ThreadJob* job, int32_t* result) {
  GlowBlendBand b;
  const int32_t hr = GlowBlendPrepareBand(job, true, true, &b);
  if (hr >= 0) {
    const V opacity(b.opacity);
    for (int32_t y = b.y0; y < b.y1; ++y) {
      const float* sr = reinterpret_cast<const float*>(b.glow + static_cast<ptrdiff_t>(y) * b.glow_stride);
      const uint8_t* dr = b.photo + static_cast<ptrdiff_t>(y) * b.photo_stride;
      uint8_t* orow = b.dst + static_cast<ptrdiff_t>(y - b.oy) * b.dst_stride;
      int32_t x = b.x0;
      for (; x + 8 <= b.x1; x += 8) Float8<kHue>(sr + x * 3, dr + x * 4, orow + (x - b.ox) * 4, opacity);
      for (; x < b.x1; ++x) GlowBlendFloatPixel(kHue, sr + x * 3, dr + x * 4, orow + (x - b.ox) * 4, b.opacity);
    }
  }
  return Done(result, hr);
}

}  // namespace

int32_t GlowBlendHueRows_AVX2(ThreadJob* job, int32_t* result) { return FloatRows<true>(job, result); }
int32_t GlowBlendSaturationRows_AVX2(ThreadJob* job, int32_t* result) { return FloatRows<false>(job, result); }

#define KORVANE_GLOW_AVX2(SLOT) \
  template void GlowBlend8_AVX2<SLOT>(const uint8_t*, const uint8_t*, uint8_t*, int32_t, int32_t);
KORVANE_GLOW_AVX2(0)
KORVANE_GLOW_AVX2(1)
KORVANE_GLOW_AVX2(2)
KORVANE_GLOW_AVX2(3)
KORVANE_GLOW_AVX2(4)
KORVANE_GLOW_AVX2(5)
KORVANE_GLOW_AVX2(6)
KORVANE_GLOW_AVX2(7)
KORVANE_GLOW_AVX2(8)
KORVANE_GLOW_AVX2(9)
KORVANE_GLOW_AVX2(10)
KORVANE_GLOW_AVX2(11)
KORVANE_GLOW_AVX2(12)
KORVANE_GLOW_AVX2(13)
KORVANE_GLOW_AVX2(16)
KORVANE_GLOW_AVX2(17)
KORVANE_GLOW_AVX2(18)
KORVANE_GLOW_AVX2(19)
KORVANE_GLOW_AVX2(20)
KORVANE_GLOW_AVX2(21)
KORVANE_GLOW_AVX2(22)
KORVANE_GLOW_AVX2(23)
KORVANE_GLOW_AVX2(24)
KORVANE_GLOW_AVX2(25)
KORVANE_GLOW_AVX2(26)
KORVANE_GLOW_AVX2(27)
KORVANE_GLOW_AVX2(28)
KORVANE_GLOW_AVX2(29)
KORVANE_GLOW_AVX2(30)
KORVANE_GLOW_AVX2(31)
KORVANE_GLOW_AVX2(32)
KORVANE_GLOW_AVX2(33)
KORVANE_GLOW_AVX2(34)
KORVANE_GLOW_AVX2(35)
KORVANE_GLOW_AVX2(36)
KORVANE_GLOW_AVX2(37)
#undef KORVANE_GLOW_AVX2

}  // namespace Korvane
