// AVX2 forms of the glow's pixel stages: the same bytes and floats as the
// plain forms, eight pixels at a time.
#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "core/ColorSpace.h"
#include "core/ImageChecks.h"
#include "core/ResultCode.h"
#include "effects/glow/GlowStages.h"

namespace Korvane {

namespace {

// Highlights at least this large go past the caches: the next stage reads
// them long after, so their lines need not be read in before being written.
constexpr int64_t kStreamBytes = int64_t{16} << 20;

// n pixels of one row: B, G, R moved by up / down with unsigned saturation
// (alpha lanes move by 0). kStream: d is 16-byte aligned and written past
// the caches.
template <bool kStream>
void DetectRow(const unsigned char* s, unsigned char* d, int32_t n, int32_t t, __m256i up, __m256i down) {
  int32_t x = 0;
  for (; x + 8 <= n; x += 8) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 4 * x));
    const __m256i o = _mm256_subs_epu8(_mm256_adds_epu8(v, up), down);
    if (kStream) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(d + 4 * x), _mm256_castsi256_si128(o));
      _mm_stream_si128(reinterpret_cast<__m128i*>(d + 4 * x + 16), _mm256_extracti128_si256(o, 1));
    } else {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + 4 * x), o);
    }
  }
  glow_detail::DetectPixels(s + 4 * x, d + 4 * x, n - x, t);
}

}  // namespace

int32_t GlowDetectHighlight_AVX2(ThreadJob* job, int32_t* result) {
  const auto* p = static_cast<const GlowDetectParam*>(job->param);
  // The masked form reads three mask bytes per pixel with edge rules; it stays
  // on the plain path, which also does every check.
  if (!p->src || !p->dst || !p->src->data || !p->dst->data || (p->mask && p->mask->data) ||
      p->src->pix_fmt != PIXEL_BGRA32 || p->dst->pix_fmt != PIXEL_BGRA32) {
    return GlowDetectHighlight(job, result);
  }
  const Rect r = Clip(job->rect, p->cols, p->rows);
  if (IsEmpty(r)) return Done(result, S_OK);
  const int32_t t = std::min(std::max(p->threshold, -255), 255);
  const __m256i up = _mm256_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(std::max(-t, 0)) * 0x010101u));
  const __m256i down = _mm256_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(std::max(t, 0)) * 0x010101u));
  const bool large = int64_t{p->cols} * p->rows * 4 >= kStreamBytes;
  bool streamed = false;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const unsigned char* s = RowPtr(*p->src, y) + r.left * 4;
    unsigned char* d = RowPtr(*p->dst, y) + r.left * 4;
    if (large && (reinterpret_cast<uintptr_t>(d) & 15) == 0) {
      DetectRow<true>(s, d, r.right - r.left, t, up, down);
      streamed = true;
    } else {
      DetectRow<false>(s, d, r.right - r.left, t, up, down);
    }
  }
  // Streamed stores are weakly ordered: make them visible before the band
  // reports completion.
  if (streamed) _mm_sfence();
  return Done(result, S_OK);
}

namespace {

// B, G, R of eight pixels (alpha dropped) as 24 byte indices, in three groups
// of eight 32-bit lanes, in memory order b0 g0 r0 b1 ...
inline void ChannelIndices(const unsigned char* s, __m256i idx[3]) {
  const __m128i pack = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  const __m128i lo = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s)), pack);
  const __m128i hi = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16)), pack);
  idx[0] = _mm256_cvtepu8_epi32(lo);
  idx[1] = _mm256_cvtepu8_epi32(_mm_unpacklo_epi32(_mm_srli_si128(lo, 8), hi));
  idx[2] = _mm256_cvtepu8_epi32(_mm_srli_si128(hi, 4));
}

}  // namespace

int32_t GlowByteToFloat_AVX2(ThreadJob* job, int32_t* result) {
  Rect r;
  const GlowConvertParam* p = GlowConvertBand(job, result, r);
  if (!p) return *result;
  const __m256 scale = _mm256_set1_ps(0.003921569f);
  const __m256 zero = _mm256_setzero_ps();
  const int32_t n = r.right - r.left;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const unsigned char* s = RowPtr(*p->bytes, y) + r.left * 4;
    float* d = RowPtr<float>(*p->floats, y) + r.left * 3;
    int32_t x = 0;
    if (p->tone) {
      // The tone curve of each byte, gathered from its table.
      for (; x + 8 <= n; x += 8) {
        __m256i idx[3];
        ChannelIndices(s + 4 * x, idx);
        for (int k = 0; k < 3; ++k) _mm256_storeu_ps(d + 3 * x + 8 * k, _mm256_i32gather_ps(p->tone, idx[k], 4));
      }
      glow_detail::ByteToFloatPixels(s + 4 * x, d + 3 * x, n - x, p->tone);
      continue;
    }
    for (; x + 8 <= n; x += 8) {
      __m256i idx[3];
      ChannelIndices(s + 4 * x, idx);
      for (int k = 0; k < 3; ++k) {
        _mm256_storeu_ps(d + 3 * x + 8 * k, _mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(idx[k]), scale), zero));
      }
    }
    glow_detail::ByteToFloatPixels(s + 4 * x, d + 3 * x, n - x, nullptr);
  }
  return Done(result, S_OK);
}

namespace {

// Four floats to four ints: x * 255 in double (exact), clamped to 0..255
// (NaN to 0), truncated.
inline __m128i ToBytes4(__m128 f) {
  const __m256d k255 = _mm256_set1_pd(255.0);
  const __m256d zero = _mm256_setzero_pd();
  const __m256d v = _mm256_add_pd(_mm256_mul_pd(_mm256_cvtps_pd(f), k255), zero);
  return _mm256_cvttpd_epi32(_mm256_min_pd(_mm256_max_pd(v, zero), k255));
}

}  // namespace

int32_t GlowFloatToByte_AVX2(ThreadJob* job, int32_t* result) {
  Rect r;
  const GlowConvertParam* p = GlowConvertBand(job, result, r);
  if (!p) return *result;
  // Per 128-bit lane, twelve bytes b0 g0 r0 b1 ... r3 spread to B, G, R of
  // four pixels; the alpha lanes come from the pixels already there.
  const __m256i spread = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1, 0, 1, 2, -1, 3, 4, 5,
                                          -1, 6, 7, 8, -1, 9, 10, 11, -1);
  const __m256i alpha = _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
  const int32_t n = r.right - r.left;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const float* s = RowPtr<float>(*p->floats, y) + r.left * 3;
    unsigned char* d = RowPtr(*p->bytes, y) + r.left * 4;
    int32_t x = 0;
    for (; x + 8 <= n; x += 8) {
      const float* f = s + 3 * x;
      const __m128i i0 = ToBytes4(_mm_loadu_ps(f)), i1 = ToBytes4(_mm_loadu_ps(f + 4));
      const __m128i i2 = ToBytes4(_mm_loadu_ps(f + 8)), i3 = ToBytes4(_mm_loadu_ps(f + 12));
      const __m128i i4 = ToBytes4(_mm_loadu_ps(f + 16)), i5 = ToBytes4(_mm_loadu_ps(f + 20));
      // Bytes 0..15 and 16..23 of the 24 channel values.
      const __m128i a = _mm_packus_epi16(_mm_packs_epi32(i0, i1), _mm_packs_epi32(i2, i3));
      const __m128i b = _mm_packus_epi16(_mm_packs_epi32(i4, i5), _mm_packs_epi32(i4, i5));
      // Pixels 0..3 from bytes 0..11, pixels 4..7 from bytes 12..23.
      const __m256i both = _mm256_setr_m128i(a, _mm_alignr_epi8(b, a, 12));
      __m256i* out = reinterpret_cast<__m256i*>(d + 4 * x);
      const __m256i old = _mm256_loadu_si256(out);
      _mm256_storeu_si256(out, _mm256_blendv_epi8(_mm256_shuffle_epi8(both, spread), old, alpha));
    }
    glow_detail::FloatToBytePixels(s + 3 * x, d + 4 * x, n - x);
  }
  return Done(result, S_OK);
}

namespace {

// Eight int32 lanes of the colour adjustment.
using I8 = __m256i;

inline I8 Sel(I8 c, I8 a, I8 b) { return _mm256_blendv_epi8(b, a, c); }
inline I8 Set(int32_t v) { return _mm256_set1_epi32(v); }

// The plain form's ClampToInt: v > lo ? (v >= hi ? hi : (int)v) : lo, NaN to lo.
inline I8 ClampToInt(__m256 v, int32_t lo, int32_t hi) {
  const I8 above = _mm256_castps_si256(_mm256_cmp_ps(v, _mm256_set1_ps(static_cast<float>(lo)), _CMP_GT_OQ));
  const I8 top = _mm256_castps_si256(_mm256_cmp_ps(v, _mm256_set1_ps(static_cast<float>(hi)), _CMP_GE_OQ));
  return Sel(above, Sel(top, Set(hi), _mm256_cvttps_epi32(v)), Set(lo));
}

// Truncating a / d for 0 <= a < 2^24 and 0 < d < 2^24, through float: the
// quotient's rounding error (below a / d * 2^-24) is smaller than its
// distance to the next integer (at least 1 / d) unless it is one.
inline I8 DivTrunc(I8 a, I8 d) {
  return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(a), _mm256_cvtepi32_ps(d)));
}

// The same for 0 <= a < 2^31 and 0 < d < 2^16, through double: the rounding
// error (below 2^-22) is smaller than the distance (at least 2^-16).
inline I8 DivTruncWide(I8 a, I8 d) {
  const __m256d lo =
      _mm256_div_pd(_mm256_cvtepi32_pd(_mm256_castsi256_si128(a)), _mm256_cvtepi32_pd(_mm256_castsi256_si128(d)));
  const __m256d hi = _mm256_div_pd(_mm256_cvtepi32_pd(_mm256_extracti128_si256(a, 1)),
                                   _mm256_cvtepi32_pd(_mm256_extracti128_si256(d, 1)));
  return _mm256_setr_m128i(_mm256_cvttpd_epi32(lo), _mm256_cvttpd_epi32(hi));
}

// n / d rounded to nearest, halves away from zero, d > 0 (the shared HSV
// conversions' rounding); kWide: |n| up to 2^31 - 2^16, else below 2^24 - 2^16.
template <bool kWide>
inline I8 DivRound(I8 n, I8 d) {
  const I8 a = _mm256_add_epi32(_mm256_abs_epi32(n), _mm256_srai_epi32(d, 1));
  return _mm256_sign_epi32(kWide ? DivTruncWide(a, d) : DivTrunc(a, d), n);
}

// RGB to HSV as the shared integer conversion does it, for channels in
// kTintFloor..255; kWide where some channel lies outside 0..255 (the
// products to divide then exceed float's exact range).
template <bool kWide>
inline void RgbToHsv8(I8 r, I8 g, I8 b, I8 mx, I8 mn, I8& h, I8& s, I8& v) {
  const I8 c = _mm256_sub_epi32(mx, mn);
  const I8 cq = _mm256_max_epi32(c, Set(1));
  v = _mm256_slli_epi32(mx, 7);
  const I8 positive = _mm256_cmpgt_epi32(mx, _mm256_setzero_si256());
  s = _mm256_and_si256(positive, DivRound<kWide>(_mm256_mullo_epi32(c, Set(kHsvMax)), _mm256_max_epi32(mx, Set(1))));
  // The hue's sector offset and difference follow the largest channel (red
  // first, then green), so one division serves all three cases.
  const I8 is_r = _mm256_cmpeq_epi32(mx, r), is_g = _mm256_cmpeq_epi32(mx, g);
  const I8 diff = Sel(is_r, _mm256_sub_epi32(g, b), Sel(is_g, _mm256_sub_epi32(b, r), _mm256_sub_epi32(r, g)));
  const I8 base = Sel(is_r, Set(0), Sel(is_g, Set(2 * kHueSector), Set(4 * kHueSector)));
  I8 hue = _mm256_add_epi32(base, DivRound<kWide>(_mm256_mullo_epi32(Set(kHueSector), diff), cq));
  hue = _mm256_add_epi32(hue, _mm256_and_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), hue), Set(kHueFull)));
  h = _mm256_andnot_si256(_mm256_cmpeq_epi32(c, _mm256_setzero_si256()), hue);
}

// h in 0..kHueFull - 1 (as RgbToHsv8 gives it), s in 0..kHsvMax.
inline void HsvToRgb8(I8 h, I8 s, I8 v, I8& r, I8& g, I8& b) {
  v = _mm256_min_epi32(_mm256_max_epi32(v, _mm256_setzero_si256()), Set(kHsvMax));
  // n / 32640 is (n >> 7) / 255 and n / 6000 is (n >> 4) / 375 for n >= 0,
  // which keeps both within float's exact range.
  const I8 vs = _mm256_add_epi32(_mm256_mullo_epi32(v, s), Set(kHsvMax / 2));
  const I8 c = DivTrunc(_mm256_srli_epi32(vs, 7), Set(kHsvMax >> 7));
  // h / 6000 for 0 <= h < 36000, by a multiply (checked over that range).
  const I8 sector = _mm256_srli_epi32(_mm256_mullo_epi32(h, Set(11185)), 26);
  const I8 f = _mm256_sub_epi32(h, _mm256_mullo_epi32(sector, Set(kHueSector)));
  const I8 odd = _mm256_cmpeq_epi32(_mm256_and_si256(sector, Set(1)), Set(1));
  const I8 part = Sel(odd, _mm256_sub_epi32(Set(kHueSector), f), f);
  const I8 cx = _mm256_add_epi32(_mm256_mullo_epi32(c, part), Set(kHueSector / 2));
  const I8 x = DivTrunc(_mm256_srli_epi32(cx, 4), Set(kHueSector >> 4));
  const I8 m = _mm256_add_epi32(_mm256_sub_epi32(v, c), Set(64));
  const I8 zero = _mm256_setzero_si256();
  auto is = [&](int32_t k) { return _mm256_cmpeq_epi32(sector, Set(k)); };
  // (R, G, B) per sector: (c,x,0) (x,c,0) (0,c,x) (0,x,c) (x,0,c) (c,0,x).
  const I8 r7 = Sel(is(0), c, Sel(is(1), x, Sel(is(2), zero, Sel(is(3), zero, Sel(is(4), x, c)))));
  const I8 g7 = Sel(is(0), x, Sel(is(1), c, Sel(is(2), c, Sel(is(3), x, zero))));
  const I8 b7 = Sel(is(0), zero, Sel(is(1), zero, Sel(is(2), x, Sel(is(3), c, Sel(is(4), c, x)))));
  r = _mm256_srai_epi32(_mm256_add_epi32(r7, m), 7);
  g = _mm256_srai_epi32(_mm256_add_epi32(g7, m), 7);
  b = _mm256_srai_epi32(_mm256_add_epi32(b7, m), 7);
}

// The colour adjustment of kGroups x 8 BGRA pixels at px (alpha kept), with
// the plain form's steps: tint (kTint), the HSV round trip with the
// saturation gain (kHsv), brightness (kScale). The groups of eight go through
// each step side by side: one group's chain of dependent steps is long (two
// divisions deep), and the others' fill its waits.
struct AdjustColorSteps {
  static constexpr int kGroups = 4;
  const int32_t* tint;  // 256 x (R, G, B)
  __m256 keep, w, sat_gain, beta;

  template <bool kTint, bool kHsv, bool kScale>
  void Run(unsigned char* px) const {
    I8 in[kGroups], r[kGroups], g[kGroups], b[kGroups];
    const I8 byte = Set(255);
    for (int j = 0; j < kGroups; ++j) {
      in[j] = _mm256_loadu_si256(reinterpret_cast<const I8*>(px + 32 * j));
      b[j] = _mm256_and_si256(in[j], byte);
      g[j] = _mm256_and_si256(_mm256_srli_epi32(in[j], 8), byte);
      r[j] = _mm256_and_si256(_mm256_srli_epi32(in[j], 16), byte);
    }
    if (kTint) {
      for (int j = 0; j < kGroups; ++j) {
        const I8 at = _mm256_mullo_epi32(_mm256_max_epi32(_mm256_max_epi32(b[j], g[j]), r[j]), Set(3));
        auto mix = [&](I8 c, int k) {
          const __m256 t = _mm256_cvtepi32_ps(_mm256_i32gather_epi32(tint + k, at, 4));
          return ClampToInt(_mm256_add_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(c), keep), _mm256_mul_ps(t, w)), -32768,
                            255);
        };
        r[j] = mix(r[j], 0);
        g[j] = mix(g[j], 1);
        b[j] = mix(b[j], 2);
      }
    }
    if (kHsv) {
      I8 mx[kGroups], mn[kGroups], h[kGroups], s[kGroups], v[kGroups];
      I8 outside = _mm256_setzero_si256();
      for (int j = 0; j < kGroups; ++j) {
        mx[j] = _mm256_max_epi32(_mm256_max_epi32(r[j], g[j]), b[j]);
        mn[j] = _mm256_min_epi32(_mm256_min_epi32(r[j], g[j]), b[j]);
        outside = _mm256_or_si256(outside, _mm256_or_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), mn[j]),
                                                           _mm256_cmpgt_epi32(mx[j], Set(255))));
      }
      // Channels outside 0..255 (a tint stronger than 1) need the wide divisions.
      if (_mm256_testz_si256(outside, outside)) {
        for (int j = 0; j < kGroups; ++j) RgbToHsv8<false>(r[j], g[j], b[j], mx[j], mn[j], h[j], s[j], v[j]);
      } else {
        for (int j = 0; j < kGroups; ++j) RgbToHsv8<true>(r[j], g[j], b[j], mx[j], mn[j], h[j], s[j], v[j]);
      }
      for (int j = 0; j < kGroups; ++j) {
        s[j] = ClampToInt(_mm256_mul_ps(_mm256_cvtepi32_ps(s[j]), sat_gain), 0, kHsvMax);
        HsvToRgb8(h[j], s[j], v[j], r[j], g[j], b[j]);
      }
    }
    for (int j = 0; j < kGroups; ++j) {
      if (kScale) {
        r[j] = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(r[j]), beta));
        g[j] = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(g[j]), beta));
        b[j] = _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(b[j]), beta));
      }
      // Packed as the plain form packs them (every result lies in 0..255
      // here, see GlowAdjustColor_AVX2).
      const I8 bgr = _mm256_and_si256(
          _mm256_or_si256(_mm256_or_si256(b[j], _mm256_slli_epi32(g[j], 8)), _mm256_slli_epi32(r[j], 16)),
          Set(0x00FFFFFF));
      const I8 alpha = _mm256_andnot_si256(Set(0x00FFFFFF), in[j]);
      _mm256_storeu_si256(reinterpret_cast<I8*>(px + 32 * j), _mm256_or_si256(bgr, alpha));
    }
  }
};

template <bool kTint, bool kHsv, bool kScale>
void AdjustColorRows(const AdjustColorSteps& k, const SmartBuffer& img, const Rect& r) {
  const int32_t n = r.right - r.left;
  for (int32_t y = r.top; y < r.bottom; ++y) {
    unsigned char* row = RowPtr(img, y) + r.left * 4;
    int32_t x = 0;
    constexpr int32_t kStep = 8 * AdjustColorSteps::kGroups;
    for (; x + kStep <= n; x += kStep) k.Run<kTint, kHsv, kScale>(row + 4 * x);
    if (x < n) {
      // The last pixels through a copy, so nothing past the row is touched.
      alignas(32) unsigned char tmp[4 * kStep] = {};
      std::memcpy(tmp, row + 4 * x, static_cast<size_t>(n - x) * 4);
      k.Run<kTint, kHsv, kScale>(tmp);
      std::memcpy(row + 4 * x, tmp, static_cast<size_t>(n - x) * 4);
    }
  }
}

}  // namespace

int32_t GlowAdjustColor_AVX2(ThreadJob* job, int32_t* result) {
  Rect r;
  GlowColorSteps st;
  const GlowColorParam* p = GlowColorBand(job, result, r, st);
  if (!p) return *result;
  // The plain form's steps; each keeps the channels in 0..255 (a tint
  // without the HSV round trip has strength 0..1, the round trip and the
  // brightness give 0..255).
  int32_t table[256][3];
  if (st.tint) GlowTintTable(*p, table);
  AdjustColorSteps k;
  k.tint = &table[0][0];
  k.keep = _mm256_set1_ps(1.0f - p->strength);
  k.w = _mm256_set1_ps(p->strength);
  k.sat_gain = _mm256_set1_ps(p->saturation + 1.0f);
  k.beta = _mm256_set1_ps(p->brightness);
  using Rows = void (*)(const AdjustColorSteps&, const SmartBuffer&, const Rect&);
  static constexpr Rows kRows[2][2][2] = {{{nullptr, &AdjustColorRows<false, false, true>},
                                           {&AdjustColorRows<false, true, false>, &AdjustColorRows<false, true, true>}},
                                          {{&AdjustColorRows<true, false, false>, &AdjustColorRows<true, false, true>},
                                           {&AdjustColorRows<true, true, false>, &AdjustColorRows<true, true, true>}}};
  kRows[st.tint][st.hsv][st.scale](k, *p->img, r);
  return Done(result, S_OK);
}

}  // namespace Korvane
