// SSE4.1 forms of the light pastes and the light-map add: four pixels at a
// time, the plain rows for the tails; results identical to the plain forms.
// The rows also finish the AVX2 forms' rows.
#include <smmintrin.h>

#include <algorithm>
#include <cstring>

#include "core/ImageChecks.h"
#include "core/LightPasteDetail.h"

namespace Korvane {

namespace lightpaste_detail {

namespace {

// Adds the 16-bit products (factor x value) >> 8 of two pixel pairs to four
// light pixels, saturating.
inline void AddProducts(uint8_t* d, __m128i lo, __m128i hi) {
  const __m128i light = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d));
  const __m128i add = _mm_packus_epi16(_mm_srli_epi16(lo, 8), _mm_srli_epi16(hi, 8));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm_adds_epu8(light, add));
}

}  // namespace

void PasteRowSse(const uint8_t* s, uint8_t* d, int32_t count, const int32_t* c, int32_t mode) {
  const __m128i zero = _mm_setzero_si128();
  // B, G, R factors and 0 for alpha, for two pixels.
  const __m128i factors =
      _mm_setr_epi16(static_cast<int16_t>(c[0]), static_cast<int16_t>(c[1]), static_cast<int16_t>(c[2]), 0,
                     static_cast<int16_t>(c[0]), static_cast<int16_t>(c[1]), static_cast<int16_t>(c[2]), 0);
  int32_t i = 0;
  if (mode == LIGHT_PASTE_CHANNELS) {
    for (; i + 4 <= count; i += 4, s += 16, d += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
      AddProducts(d, _mm_mullo_epi16(_mm_unpacklo_epi8(v, zero), factors),
                  _mm_mullo_epi16(_mm_unpackhi_epi8(v, zero), factors));
    }
  } else {
    const __m128i bgr = _mm_setr_epi16(1, 1, 1, 0, 1, 1, 1, 0);
    const __m128i mul = _mm_set1_epi16(static_cast<int16_t>(kIntensityMul));
    // Spread the intensity of pixels 0, 1 (or 2, 3) over their four lanes.
    const __m128i spread_lo = _mm_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3);
    const __m128i spread_hi = _mm_setr_epi8(4, 5, 4, 5, 4, 5, 4, 5, 6, 7, 6, 7, 6, 7, 6, 7);
    for (; i + 4 <= count; i += 4, s += 16, d += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
      const __m128i sums = _mm_hadd_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(v, zero), bgr),
                                          _mm_madd_epi16(_mm_unpackhi_epi8(v, zero), bgr));
      const __m128i intensity = _mm_mulhi_epu16(_mm_packs_epi32(sums, sums), mul);
      AddProducts(d, _mm_mullo_epi16(_mm_shuffle_epi8(intensity, spread_lo), factors),
                  _mm_mullo_epi16(_mm_shuffle_epi8(intensity, spread_hi), factors));
    }
  }
  if (i < count) PasteRowPlain(s, d, count - i, c, mode);
}

void MixRowSse(const uint8_t* a, const uint8_t* b, int32_t wa, int32_t wb, uint8_t* out, int32_t count) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i va = _mm_set1_epi16(static_cast<int16_t>(wa));
  const __m128i vb = _mm_set1_epi16(static_cast<int16_t>(wb));
  const __m128i half = _mm_set1_epi16(128);
  // wa x a + wb x b + 128 stays below 2^16 because wa + wb = 256.
  auto mix = [&](__m128i x, __m128i y) {
    return _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(x, va), _mm_mullo_epi16(y, vb)), half), 8);
  };
  int32_t i = 0;
  for (; i + 4 <= count; i += 4, a += 16, b += 16, out += 16) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a));
    const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
    const __m128i lo = mix(_mm_unpacklo_epi8(x, zero), _mm_unpacklo_epi8(y, zero));
    const __m128i hi = mix(_mm_unpackhi_epi8(x, zero), _mm_unpackhi_epi8(y, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(lo, hi));
  }
  if (i < count) MixRowPlain(a, b, wa, wb, out, count - i);
}

// Adding the light without its alpha keeps the base's alpha. Through a
// table, the four looked-up pixels are gathered first and added at once.
void AddRowSse(const uint8_t* b, const uint8_t* l, uint8_t* o, int32_t count, const uint8_t* table) {
  const __m128i no_alpha = _mm_set1_epi32(0x00FFFFFF);
  int32_t x = 0;
  if (table) {
    const auto looked_up = [table](const uint8_t* q) -> int32_t {
      return static_cast<int32_t>(static_cast<uint32_t>(table[q[0]]) | static_cast<uint32_t>(table[q[1]]) << 8 |
                                  static_cast<uint32_t>(table[q[2]]) << 16);
    };
    for (; x + 4 <= count; x += 4, b += 16, l += 16, o += 16) {
      const __m128i vl = _mm_setr_epi32(looked_up(l), looked_up(l + 4), looked_up(l + 8), looked_up(l + 12));
      const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm_adds_epu8(vb, vl));
    }
  } else {
    for (; x + 4 <= count; x += 4, b += 16, l += 16, o += 16) {
      const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
      const __m128i vl = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(l)), no_alpha);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm_adds_epu8(vb, vl));
    }
  }
  if (x < count) AddRowPlain(b, l, o, count - x, table);
}

}  // namespace lightpaste_detail

using namespace lightpaste_detail;

int32_t PasteLight_SSE(const LightShape& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                       const Rect& shape_roi) {
  return RunPasteLight(shape, light, pt_int, args, shape_roi, PasteRowSse);
}

int32_t BilinearPasteLight_SSE(LightShape& shape, SmartBuffer& light, PointF pt, const LightPasteArgs& args,
                               const Rect& shape_roi) {
  return RunBilinearPasteLight(shape, light, pt, args, shape_roi, PasteRowSse, MixRowSse);
}

int32_t ImageAddLightMap_SSE(const LightMapAddParam& p, const Rect& band) {
  return RunImageAddLightMap(p, band, AddRowSse);
}

void CalLightAddTable_SSE(float strength, uint8_t table[256]) {
  const __m128 k = _mm_set1_ps(ClampStrength(strength));
  const __m128d half = _mm_set1_pd(0.5);
  const __m128i step = _mm_set1_epi32(4);
  __m128i idx = _mm_setr_epi32(0, 1, 2, 3);
  for (int32_t i = 0; i < 256; i += 4) {
    // Product in float, + 0.5 in double, truncated: the plain form's steps.
    const __m128 prod = _mm_mul_ps(_mm_cvtepi32_ps(idx), k);
    const __m128d lo = _mm_add_pd(_mm_cvtps_pd(prod), half);
    const __m128d hi = _mm_add_pd(_mm_cvtps_pd(_mm_movehl_ps(prod, prod)), half);
    __m128i v = _mm_unpacklo_epi64(_mm_cvttpd_epi32(lo), _mm_cvttpd_epi32(hi));
    v = _mm_min_epi32(_mm_max_epi32(v, _mm_setzero_si128()), _mm_set1_epi32(255));
    const __m128i bytes = _mm_packus_epi16(_mm_packus_epi32(v, v), v);
    const int32_t four = _mm_cvtsi128_si32(bytes);
    std::memcpy(table + i, &four, 4);
    idx = _mm_add_epi32(idx, step);
  }
}

}  // namespace Korvane
