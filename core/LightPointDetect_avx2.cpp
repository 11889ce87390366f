// AVX2 forms of the light-point detector's kernels: eight pixels at a time
// with the plain forms' float operations in the same order (minima and
// maxima, exact in any order, by whole registers); the plain row steps
// finish each row. The results are the plain forms'.
#include <immintrin.h>

#include <algorithm>
#include <cfloat>
#include <cstring>
#include <limits>
#include <vector>

#include "core/ImageChecks.h"
#include "core/LightPointDetect.h"
#include "core/LightPointDetectDetail.h"

namespace Korvane {

namespace lightpoint_detail {

void LightnessRow_AVX2(const uint8_t* s, float* out, int32_t x0, int32_t x1) {
  const __m256i low = _mm256_set1_epi32(0xFF);
  const __m256 half = _mm256_set1_ps(0.5f);
  int32_t x = x0;
  for (; x + 8 <= x1; x += 8) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + 4 * x));
    const __m256i b = _mm256_and_si256(v, low);
    const __m256i g = _mm256_and_si256(_mm256_srli_epi32(v, 8), low);
    const __m256i r = _mm256_and_si256(_mm256_srli_epi32(v, 16), low);
    const __m256i sum = _mm256_add_epi32(_mm256_max_epi32(b, _mm256_max_epi32(g, r)),
                                         _mm256_min_epi32(b, _mm256_min_epi32(g, r)));
    _mm256_storeu_ps(out + x, _mm256_mul_ps(_mm256_cvtepi32_ps(sum), half));
  }
  LightnessRow(s, out, x, x1);
}

void ProductsRow_AVX2(const float* l, const float* above, const float* below, int32_t d, float* xx, float* yy,
                      float* xy, int32_t x0, int32_t x1) {
  const __m256 scale = _mm256_set1_ps(255.0f);
  int32_t x = x0;
  for (; x + 8 <= x1; x += 8) {
    const __m256 gx = _mm256_div_ps(_mm256_sub_ps(_mm256_loadu_ps(l + x - d), _mm256_loadu_ps(l + x + d)), scale);
    const __m256 gy = _mm256_div_ps(_mm256_sub_ps(_mm256_loadu_ps(above + x), _mm256_loadu_ps(below + x)), scale);
    _mm256_storeu_ps(xx + x, _mm256_mul_ps(gx, gx));
    _mm256_storeu_ps(yy + x, _mm256_mul_ps(gy, gy));
    _mm256_storeu_ps(xy + x, _mm256_mul_ps(gx, gy));
  }
  ProductsRow(l, above, below, d, xx, yy, xy, x, x1);
}

namespace {

void ResponseRowAvx2(const float* xx, const float* yy, const float* xy, float k, float* out, int32_t x0, int32_t x1) {
  const __m256 vk = _mm256_set1_ps(k);
  int32_t x = x0;
  for (; x + 8 <= x1; x += 8) {
    const __m256 a = _mm256_loadu_ps(xx + x), b = _mm256_loadu_ps(yy + x), c = _mm256_loadu_ps(xy + x);
    const __m256 trace = _mm256_add_ps(a, b);
    // (a b - c c) - (k trace) trace, as the plain form's expression groups.
    const __m256 det = _mm256_sub_ps(_mm256_mul_ps(a, b), _mm256_mul_ps(c, c));
    _mm256_storeu_ps(out + x, _mm256_sub_ps(det, _mm256_mul_ps(_mm256_mul_ps(vk, trace), trace)));
  }
  ResponseRow(xx, yy, xy, k, out, x, x1);
}

// The largest value of each padded window [i, i + len) of p (n values,
// n >= len), into out[0 .. n - len]: maxima of 2, 4, 8, ... values by
// doubling, then two overlapping blocks cover the window. `tmp` holds n values.
void WindowMaxima(const float* p, int32_t n, int32_t len, float* out, float* tmp) {
  int32_t span = 1;
  const float* from = p;
  while (span * 2 <= len) {
    // tmp[i] = max of from[i] and from[i + span]: the maximum of 2 span values.
    const int32_t m = n - 2 * span + 1;
    int32_t i = 0;
    for (; i + 8 <= m; i += 8) {
      _mm256_storeu_ps(tmp + i, _mm256_max_ps(_mm256_loadu_ps(from + i), _mm256_loadu_ps(from + i + span)));
    }
    for (; i < m; ++i) tmp[i] = std::max(from[i], from[i + span]);
    from = tmp;
    span *= 2;
  }
  const int32_t m = n - len + 1, shift = len - span;
  int32_t i = 0;
  for (; i + 8 <= m; i += 8) {
    _mm256_storeu_ps(out + i, _mm256_max_ps(_mm256_loadu_ps(from + i), _mm256_loadu_ps(from + i + shift)));
  }
  for (; i < m; ++i) out[i] = std::max(from[i], from[i + shift]);
}

}  // namespace

}  // namespace lightpoint_detail

using namespace lightpoint_detail;

int32_t CalCornerResponse_AVX2(const SmartBuffer& dxx, const SmartBuffer& dyy, const SmartBuffer& dxy, SmartBuffer& dst,
                               float k, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&dxx, &dyy, &dxy, &dst}, roi);
  if (hr < 0) return hr;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    ResponseRowAvx2(RowPtr<const float>(dxx, y), RowPtr<const float>(dyy, y), RowPtr<const float>(dxy, y), k,
                    RowPtr<float>(dst, y), roi.left, roi.right);
  }
  return S_OK;
}

int32_t GetBuffMinMax_AVX2(const SmartBuffer& buf, float& min_value, float& max_value, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&buf}, roi);
  if (hr < 0) return hr;
  // A NaN is passed over, as the plain form's comparisons pass it over.
  __m256 lo8 = _mm256_set1_ps(FLT_MAX), hi8 = _mm256_set1_ps(FLT_MIN);
  float lo = FLT_MAX, hi = FLT_MIN;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    const float* p = RowPtr<const float>(buf, y);
    int32_t x = roi.left;
    for (; x + 8 <= roi.right; x += 8) {
      const __m256 v = _mm256_loadu_ps(p + x);
      lo8 = _mm256_min_ps(v, lo8);
      hi8 = _mm256_max_ps(v, hi8);
    }
    MinMaxRow(p, x, roi.right, lo, hi);
  }
  alignas(32) float l[8], h[8];
  _mm256_store_ps(l, lo8);
  _mm256_store_ps(h, hi8);
  for (int k = 0; k < 8; ++k) {
    lo = std::min(lo, l[k]);
    hi = std::max(hi, h[k]);
  }
  min_value = lo;
  max_value = hi;
  return S_OK;
}

int32_t NormalizeMinMax_AVX2(SmartBuffer& buf, float from_lo, float from_hi, float to_lo, float to_hi, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&buf}, roi);
  if (hr < 0) return hr;
  if (from_hi == from_lo) return E_INVALIDARG;
  const float to_span = to_hi - to_lo, from_span = from_hi - from_lo;
  const __m256 vlo = _mm256_set1_ps(from_lo), vto = _mm256_set1_ps(to_span), vfrom = _mm256_set1_ps(from_span);
  const __m256 out_lo = _mm256_set1_ps(to_lo), out_hi = _mm256_set1_ps(to_hi);
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    float* p = RowPtr<float>(buf, y);
    int32_t x = roi.left;
    for (; x + 8 <= roi.right; x += 8) {
      const __m256 v =
          _mm256_add_ps(_mm256_div_ps(_mm256_mul_ps(_mm256_sub_ps(_mm256_loadu_ps(p + x), vlo), vto), vfrom), out_lo);
      // min first (a NaN becomes to_hi, as in the plain form), then max.
      _mm256_storeu_ps(p + x, _mm256_max_ps(_mm256_min_ps(v, out_hi), out_lo));
    }
    NormalizeRow(p, from_lo, to_span, from_span, to_lo, to_hi, x, roi.right);
  }
  return S_OK;
}

int32_t NonMaximumSuppress_AVX2(const SmartBuffer& src, SmartBuffer& dst, int32_t r, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&src, &dst}, roi);
  if (hr < 0) return hr;
  if (r < 0) return E_INVALIDARG;
  if (r == 0 || IsEmpty(roi)) return S_OK;
  // The window maximum, separable: the row maxima of the r rows either side
  // (over rows padded with -infinity, which is the window cut to the
  // image), then their column maximum; a pixel survives when it is not
  // below it.
  const int32_t w = src.width, len = 2 * r + 1, padded = w + 2 * r;
  const int32_t top = std::max(roi.top - r, 0), bottom = std::min(roi.bottom + r, src.height);
  const size_t cols = static_cast<size_t>(roi.right - roi.left);
  std::vector<float> row_max(cols * static_cast<size_t>(bottom - top));
  std::vector<float> pad(static_cast<size_t>(padded), -std::numeric_limits<float>::infinity());
  std::vector<float> tmp(pad.size()), maxima(static_cast<size_t>(w));
  for (int32_t y = top; y < bottom; ++y) {
    std::memcpy(pad.data() + r, RowPtr<const float>(src, y), static_cast<size_t>(w) * sizeof(float));
    WindowMaxima(pad.data(), padded, len, maxima.data(), tmp.data());  // pixel x's window starts at padded x
    std::memcpy(row_max.data() + cols * static_cast<size_t>(y - top), maxima.data() + roi.left, cols * sizeof(float));
  }
  std::vector<float> win(cols);
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    const int32_t y0 = std::max(y - r, top), y1 = std::min(y + r + 1, bottom);
    const float* first = row_max.data() + cols * static_cast<size_t>(y0 - top);
    size_t i = 0;
    for (; i + 8 <= cols; i += 8) {
      __m256 m = _mm256_loadu_ps(first + i);
      for (int32_t yy = y0 + 1; yy < y1; ++yy) m = _mm256_max_ps(m, _mm256_loadu_ps(first + cols * (yy - y0) + i));
      _mm256_storeu_ps(win.data() + i, m);
    }
    for (; i < cols; ++i) {
      float m = first[i];
      for (int32_t yy = y0 + 1; yy < y1; ++yy) m = std::max(m, first[cols * (yy - y0) + i]);
      win[i] = m;
    }
    const float* s = RowPtr<const float>(src, y);
    float* out = RowPtr<float>(dst, y);
    const float* wrow = win.data() - roi.left;
    int32_t x = roi.left;
    for (; x + 8 <= roi.right; x += 8) {
      const __m256 v = _mm256_loadu_ps(s + x);
      const __m256 kept = _mm256_cmp_ps(_mm256_loadu_ps(wrow + x), v, _CMP_GT_OQ);
      _mm256_storeu_ps(out + x, _mm256_blendv_ps(v, _mm256_loadu_ps(out + x), kept));
    }
    SuppressRow(wrow, s, out, x, roi.right);
  }
  return S_OK;
}

int32_t ThreshCornerMap_AVX2(SmartBuffer& map, float t, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&map}, roi);
  if (hr < 0) return hr;
  const __m256 vt = _mm256_set1_ps(t), one = _mm256_set1_ps(1.0f);
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    float* p = RowPtr<float>(map, y);
    int32_t x = roi.left;
    for (; x + 8 <= roi.right; x += 8) {
      _mm256_storeu_ps(p + x, _mm256_and_ps(_mm256_cmp_ps(_mm256_loadu_ps(p + x), vt, _CMP_GE_OQ), one));
    }
    ThreshRow(p, t, x, roi.right);
  }
  return S_OK;
}

int32_t CvtBuffFloatToChar_AVX2(const SmartBuffer& src, SmartBuffer& dst, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&src}, roi);
  if (hr < 0) return hr;
  if (!dst.data) return E_POINTER;
  if (!IsGray8(dst)) return E_NOTIMPL;
  if (!RowsFit(dst, 1) || !SameSize(src, dst)) return E_INVALIDARG;
  const __m256 zero = _mm256_setzero_ps(), most = _mm256_set1_ps(255.0f);
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    const float* s = RowPtr<const float>(src, y);
    uint8_t* out = RowPtr<uint8_t>(dst, y);
    int32_t x = roi.left;
    for (; x + 8 <= roi.right; x += 8) {
      const __m256 v = _mm256_loadu_ps(s + x);
      // Values not above 0 (and NaN) give 0; the others are clamped to 255 and truncated.
      const __m256i lit = _mm256_castps_si256(_mm256_cmp_ps(v, zero, _CMP_GT_OQ));
      const __m256i i = _mm256_and_si256(_mm256_cvttps_epi32(_mm256_min_ps(v, most)), lit);
      const __m128i words = _mm_packus_epi32(_mm256_castsi256_si128(i), _mm256_extracti128_si256(i, 1));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out + x), _mm_packus_epi16(words, words));
    }
    CvtRow(s, out, x, roi.right);
  }
  return S_OK;
}

}  // namespace Korvane
