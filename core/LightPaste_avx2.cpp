// AVX2 forms of the light pastes, the light-map add and its strength table:
// eight pixels at a time with the SSE4.1 forms' integer steps, the SSE4.1
// rows for the tails; results identical to the plain forms.
#include <immintrin.h>

#include <cstring>

#include "core/ImageChecks.h"
#include "core/LightPasteDetail.h"

namespace Korvane {

namespace {

using namespace lightpaste_detail;

inline __m256i Load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
inline void Store(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// Adds the 16-bit products (factor x value) >> 8 of the pixels in lo (0, 1
// and 4, 5) and hi (2, 3 and 6, 7) to eight light pixels, saturating.
inline void AddProducts(uint8_t* d, __m256i lo, __m256i hi) {
  const __m256i add = _mm256_packus_epi16(_mm256_srli_epi16(lo, 8), _mm256_srli_epi16(hi, 8));
  Store(d, _mm256_adds_epu8(Load(d), add));
}

void PasteRowAvx2(const uint8_t* s, uint8_t* d, int32_t count, const int32_t* c, int32_t mode) {
  const __m256i zero = _mm256_setzero_si256();
  // B, G, R factors and 0 for alpha, for two pixels in each 128-bit lane.
  const int16_t b = static_cast<int16_t>(c[0]), g = static_cast<int16_t>(c[1]), r = static_cast<int16_t>(c[2]);
  const __m256i factors = _mm256_setr_epi16(b, g, r, 0, b, g, r, 0, b, g, r, 0, b, g, r, 0);
  int32_t i = 0;
  if (mode == LIGHT_PASTE_CHANNELS) {
    for (; i + 8 <= count; i += 8, s += 32, d += 32) {
      const __m256i v = Load(s);
      AddProducts(d, _mm256_mullo_epi16(_mm256_unpacklo_epi8(v, zero), factors),
                  _mm256_mullo_epi16(_mm256_unpackhi_epi8(v, zero), factors));
    }
  } else {
    const __m256i bgr = _mm256_setr_epi16(1, 1, 1, 0, 1, 1, 1, 0, 1, 1, 1, 0, 1, 1, 1, 0);
    const __m256i mul = _mm256_set1_epi16(static_cast<int16_t>(kIntensityMul));
    // Spread the intensity of a lane's pixels 0, 1 (or 2, 3) over their four words.
    const __m256i spread_lo =
        _mm256_setr_epi8(0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3, 0, 1, 0, 1, 0, 1, 0, 1, 2, 3, 2, 3, 2, 3, 2, 3);
    const __m256i spread_hi =
        _mm256_setr_epi8(4, 5, 4, 5, 4, 5, 4, 5, 6, 7, 6, 7, 6, 7, 6, 7, 4, 5, 4, 5, 4, 5, 4, 5, 6, 7, 6, 7, 6, 7, 6, 7);
    for (; i + 8 <= count; i += 8, s += 32, d += 32) {
      const __m256i v = Load(s);
      // Per lane: the channel sums of its four pixels, in order.
      const __m256i sums = _mm256_hadd_epi32(_mm256_madd_epi16(_mm256_unpacklo_epi8(v, zero), bgr),
                                             _mm256_madd_epi16(_mm256_unpackhi_epi8(v, zero), bgr));
      const __m256i intensity = _mm256_mulhi_epu16(_mm256_packs_epi32(sums, sums), mul);
      AddProducts(d, _mm256_mullo_epi16(_mm256_shuffle_epi8(intensity, spread_lo), factors),
                  _mm256_mullo_epi16(_mm256_shuffle_epi8(intensity, spread_hi), factors));
    }
  }
  if (i < count) PasteRowSse(s, d, count - i, c, mode);
}

void MixRowAvx2(const uint8_t* a, const uint8_t* b, int32_t wa, int32_t wb, uint8_t* out, int32_t count) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i va = _mm256_set1_epi16(static_cast<int16_t>(wa));
  const __m256i vb = _mm256_set1_epi16(static_cast<int16_t>(wb));
  const __m256i half = _mm256_set1_epi16(128);
  // wa x a + wb x b + 128 stays below 2^16 because wa + wb = 256.
  const auto mix = [&](__m256i x, __m256i y) {
    return _mm256_srli_epi16(
        _mm256_add_epi16(_mm256_add_epi16(_mm256_mullo_epi16(x, va), _mm256_mullo_epi16(y, vb)), half), 8);
  };
  int32_t i = 0;
  for (; i + 8 <= count; i += 8, a += 32, b += 32, out += 32) {
    const __m256i x = Load(a), y = Load(b);
    const __m256i lo = mix(_mm256_unpacklo_epi8(x, zero), _mm256_unpacklo_epi8(y, zero));
    const __m256i hi = mix(_mm256_unpackhi_epi8(x, zero), _mm256_unpackhi_epi8(y, zero));
    Store(out, _mm256_packus_epi16(lo, hi));
  }
  if (i < count) MixRowSse(a, b, wa, wb, out, count - i);
}

// table[v] for the byte values of eight lanes: each lane gathers the aligned
// four table bytes that hold its entry (never past the table's end) and
// shifts its own byte down.
inline __m256i LookUp(const uint8_t* table, __m256i v) {
  const __m256i group = _mm256_andnot_si256(_mm256_set1_epi32(3), v);
  const __m256i shift = _mm256_slli_epi32(_mm256_and_si256(v, _mm256_set1_epi32(3)), 3);
  const __m256i four = _mm256_i32gather_epi32(reinterpret_cast<const int*>(table), group, 1);
  return _mm256_and_si256(_mm256_srlv_epi32(four, shift), _mm256_set1_epi32(0xFF));
}

// Adding the light without its alpha keeps the base's alpha. Through a
// table, each channel of eight pixels is looked up at once; eight unlit
// pixels add table[0] (0 for every strength table), checked once a row.
void AddRowAvx2(const uint8_t* b, const uint8_t* l, uint8_t* o, int32_t count, const uint8_t* table) {
  const __m256i no_alpha = _mm256_set1_epi32(0x00FFFFFF);
  const __m256i low = _mm256_set1_epi32(0xFF);
  int32_t x = 0;
  if (table) {
    const bool dark_adds_nothing = table[0] == 0;
    for (; x + 8 <= count; x += 8, b += 32, l += 32, o += 32) {
      const __m256i vl = Load(l);
      const __m256i vb = Load(b);
      if (dark_adds_nothing && _mm256_testz_si256(vl, no_alpha)) {
        Store(o, vb);
        continue;
      }
      const __m256i tb = LookUp(table, _mm256_and_si256(vl, low));
      const __m256i tg = LookUp(table, _mm256_and_si256(_mm256_srli_epi32(vl, 8), low));
      const __m256i tr = LookUp(table, _mm256_and_si256(_mm256_srli_epi32(vl, 16), low));
      const __m256i add = _mm256_or_si256(tb, _mm256_or_si256(_mm256_slli_epi32(tg, 8), _mm256_slli_epi32(tr, 16)));
      Store(o, _mm256_adds_epu8(vb, add));
    }
  } else {
    for (; x + 8 <= count; x += 8, b += 32, l += 32, o += 32) {
      Store(o, _mm256_adds_epu8(Load(b), _mm256_and_si256(Load(l), no_alpha)));
    }
  }
  if (x < count) AddRowSse(b, l, o, count - x, table);
}

}  // namespace

int32_t PasteLight_AVX2(const LightShape& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                        const Rect& shape_roi) {
  return RunPasteLight(shape, light, pt_int, args, shape_roi, PasteRowAvx2);
}

int32_t BilinearPasteLight_AVX2(LightShape& shape, SmartBuffer& light, PointF pt, const LightPasteArgs& args,
                                const Rect& shape_roi) {
  return RunBilinearPasteLight(shape, light, pt, args, shape_roi, PasteRowAvx2, MixRowAvx2);
}

int32_t ImageAddLightMap_AVX2(const LightMapAddParam& p, const Rect& band) {
  return RunImageAddLightMap(p, band, AddRowAvx2);
}

void CalLightAddTable_AVX2(float strength, uint8_t table[256]) {
  const __m256 k = _mm256_set1_ps(ClampStrength(strength));
  const __m256d half = _mm256_set1_pd(0.5);
  const __m256i step = _mm256_set1_epi32(8);
  __m256i idx = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  for (int32_t i = 0; i < 256; i += 8) {
    // Product in float, + 0.5 in double, truncated: the plain form's steps.
    const __m256 prod = _mm256_mul_ps(_mm256_cvtepi32_ps(idx), k);
    const __m256d lo = _mm256_add_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(prod)), half);
    const __m256d hi = _mm256_add_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(prod, 1)), half);
    __m128i v_lo = _mm256_cvttpd_epi32(lo), v_hi = _mm256_cvttpd_epi32(hi);
    const __m128i top = _mm_set1_epi32(255), zero = _mm_setzero_si128();
    v_lo = _mm_min_epi32(_mm_max_epi32(v_lo, zero), top);
    v_hi = _mm_min_epi32(_mm_max_epi32(v_hi, zero), top);
    const __m128i words = _mm_packus_epi32(v_lo, v_hi);
    const __m128i bytes = _mm_packus_epi16(words, words);
    std::memcpy(table + i, &bytes, 8);
    idx = _mm256_add_epi32(idx, step);
  }
}

}  // namespace Korvane
