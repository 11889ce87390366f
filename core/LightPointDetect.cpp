#include "core/LightPointDetect.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "core/BandTask.h"
#include "core/BoxBlur.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/LightPaste.h"
#include "core/LightPointDetectDetail.h"
#include "core/Random.h"
#include "core/SmartBuffer.h"

namespace Korvane {

namespace {

bool IsFloat(const SmartBuffer& b) { return IsFormat(b, PIXEL_FLOAT32); }

inline float Lightness(const uint8_t* p) {
  const int32_t mx = std::max(p[0], std::max(p[1], p[2]));
  const int32_t mn = std::min(p[0], std::min(p[1], p[2]));
  return static_cast<float>(mx + mn) * 0.5f;
}

}  // namespace

namespace lightpoint_detail {

int32_t CheckMap(const SmartBuffer& b, bool is_float) {
  if (!b.data) return E_POINTER;
  if (is_float ? !IsFloat(b) : !IsBgra(b)) return E_NOTIMPL;
  if (!RowsFit(b, 4)) return E_INVALIDARG;
  return S_OK;
}

// The pool hands out empty bands when an image has fewer rows than workers.
int32_t CheckRoi(const Rect& roi, const SmartBuffer& a) {
  return roi.left >= 0 && roi.top >= 0 && roi.right <= a.width && roi.bottom <= a.height && roi.right >= roi.left &&
                 roi.bottom >= roi.top
             ? S_OK
             : E_INVALIDARG;
}

int32_t CheckFloatMaps(std::initializer_list<const SmartBuffer*> maps, const Rect& roi) {
  const SmartBuffer& first = **maps.begin();
  for (const SmartBuffer* m : maps) {
    const int32_t hr = CheckMap(*m, true);
    if (hr < 0) return hr;
    if (!SameSize(*m, first)) return E_INVALIDARG;
  }
  return CheckRoi(roi, first);
}

void LightnessRow(const uint8_t* s, float* out, int32_t x0, int32_t x1) {
  for (int32_t x = x0; x < x1; ++x) out[x] = Lightness(s + 4 * x);
}

void ProductsRow(const float* l, const float* above, const float* below, int32_t d, float* xx, float* yy, float* xy,
                 int32_t x0, int32_t x1) {
  for (int32_t x = x0; x < x1; ++x) {
    const float gx = (l[x - d] - l[x + d]) / 255.0f;
    const float gy = (above[x] - below[x]) / 255.0f;
    xx[x] = gx * gx;
    yy[x] = gy * gy;
    xy[x] = gx * gy;
  }
}

void ResponseRow(const float* xx, const float* yy, const float* xy, float k, float* out, int32_t x0, int32_t x1) {
  for (int32_t x = x0; x < x1; ++x) {
    const float trace = xx[x] + yy[x];
    out[x] = xx[x] * yy[x] - xy[x] * xy[x] - k * trace * trace;
  }
}

void MinMaxRow(const float* p, int32_t x0, int32_t x1, float& lo, float& hi) {
  for (int32_t x = x0; x < x1; ++x) {
    lo = std::min(lo, p[x]);
    hi = std::max(hi, p[x]);
  }
}

void NormalizeRow(float* p, float from_lo, float to_span, float from_span, float to_lo, float to_hi, int32_t x0,
                  int32_t x1) {
  for (int32_t x = x0; x < x1; ++x) {
    const float v = (p[x] - from_lo) * to_span / from_span + to_lo;
    p[x] = std::max(to_lo, std::min(to_hi, v));
  }
}

void SuppressRow(const float* win, const float* s, float* out, int32_t x0, int32_t x1) {
  for (int32_t x = x0; x < x1; ++x) {
    if (!(win[x] > s[x])) out[x] = s[x];
  }
}

void ThreshRow(float* p, float t, int32_t x0, int32_t x1) {
  for (int32_t x = x0; x < x1; ++x) p[x] = p[x] >= t ? 1.0f : 0.0f;
}

void CvtRow(const float* s, uint8_t* out, int32_t x0, int32_t x1) {
  for (int32_t x = x0; x < x1; ++x) {
    const float v = s[x];
    out[x] = v > 0.0f ? static_cast<uint8_t>(std::min(v, 255.0f)) : 0;
  }
}

}  // namespace lightpoint_detail

using namespace lightpoint_detail;

namespace {

int32_t CheckGradient(const SmartBuffer& src, const SmartBuffer& dst, int32_t d, const Rect& roi) {
  int32_t hr = CheckMap(src, false);
  if (hr < 0) return hr;
  if (!dst.data) return E_POINTER;
  if (!IsFloat(dst) || !RowsFit(dst, 4) || !SameSize(src, dst) || d < 0) return E_INVALIDARG;
  return CheckRoi(roi, src);
}

}  // namespace

int32_t GradientH(const SmartBuffer& src, SmartBuffer& dst, int32_t d, const Rect& roi) {
  int32_t hr = CheckGradient(src, dst, d, roi);
  if (hr < 0) return hr;
  std::vector<float> light(static_cast<size_t>(src.width));
  const int32_t last = src.width - 1;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    LightnessRow(RowPtr<const uint8_t>(src, y), light.data(), 0, src.width);
    float* out = RowPtr<float>(dst, y);
    for (int32_t x = roi.left; x < roi.right; ++x) {
      const float a = light[static_cast<size_t>(std::max(x - d, 0))];
      const float b = light[static_cast<size_t>(std::min(x + d, last))];
      out[x] = (a - b) / 255.0f;
    }
  }
  return S_OK;
}

int32_t GradientV(const SmartBuffer& src, SmartBuffer& dst, int32_t d, const Rect& roi) {
  int32_t hr = CheckGradient(src, dst, d, roi);
  if (hr < 0) return hr;
  const int32_t last = src.height - 1;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    const uint8_t* above = RowPtr<const uint8_t>(src, std::max(y - d, 0));
    const uint8_t* below = RowPtr<const uint8_t>(src, std::min(y + d, last));
    float* out = RowPtr<float>(dst, y);
    for (int32_t x = roi.left; x < roi.right; ++x)
      out[x] = (Lightness(above + 4 * x) - Lightness(below + 4 * x)) / 255.0f;
  }
  return S_OK;
}

int32_t MultiplyBuffer(const SmartBuffer& a, const SmartBuffer& b, SmartBuffer& dst, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&a, &b, &dst}, roi);
  if (hr < 0) return hr;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    const float* pa = RowPtr<const float>(a, y);
    const float* pb = RowPtr<const float>(b, y);
    float* out = RowPtr<float>(dst, y);
    for (int32_t x = roi.left; x < roi.right; ++x) out[x] = pa[x] * pb[x];
  }
  return S_OK;
}

int32_t CalCornerResponse(const SmartBuffer& dxx, const SmartBuffer& dyy, const SmartBuffer& dxy, SmartBuffer& dst,
                          float k, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&dxx, &dyy, &dxy, &dst}, roi);
  if (hr < 0) return hr;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    ResponseRow(RowPtr<const float>(dxx, y), RowPtr<const float>(dyy, y), RowPtr<const float>(dxy, y), k,
                RowPtr<float>(dst, y), roi.left, roi.right);
  }
  return S_OK;
}

int32_t GetBuffMinMax(const SmartBuffer& buf, float& min_value, float& max_value, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&buf}, roi);
  if (hr < 0) return hr;
  float lo = FLT_MAX, hi = FLT_MIN;
  for (int32_t y = roi.top; y < roi.bottom; ++y) MinMaxRow(RowPtr<const float>(buf, y), roi.left, roi.right, lo, hi);
  min_value = lo;
  max_value = hi;
  return S_OK;
}

int32_t NormalizeMinMax(SmartBuffer& buf, float from_lo, float from_hi, float to_lo, float to_hi, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&buf}, roi);
  if (hr < 0) return hr;
  if (from_hi == from_lo) return E_INVALIDARG;
  // Multiply, then divide: a span as small as FLT_MIN (a map with no
  // positive value) must still send 0 to 0 rather than 0 x infinity.
  const float to_span = to_hi - to_lo, from_span = from_hi - from_lo;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    NormalizeRow(RowPtr<float>(buf, y), from_lo, to_span, from_span, to_lo, to_hi, roi.left, roi.right);
  }
  return S_OK;
}

int32_t NonMaximumSuppress(const SmartBuffer& src, SmartBuffer& dst, int32_t r, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&src, &dst}, roi);
  if (hr < 0) return hr;
  if (r < 0) return E_INVALIDARG;
  if (r == 0) return S_OK;
  // A pixel survives exactly when it equals the maximum of its window, and
  // that maximum is separable: the row maxima of the r rows either side,
  // then their column maximum. 2 (2r + 1) comparisons a pixel instead of
  // (2r + 1)^2.
  const int32_t w = src.width;
  const int32_t top = std::max(roi.top - r, 0), bottom = std::min(roi.bottom + r, src.height);
  const size_t cols = static_cast<size_t>(roi.right - roi.left);
  std::vector<float> row_max(cols * static_cast<size_t>(bottom - top));
  // Row maxima by blocks of the window's length (van Herk): g runs forward
  // within each block, h backward, and a window spanning two blocks is
  // max(h at its start, g at its end), three operations a pixel whatever r.
  // The row is padded with -infinity, which is the window cut to the image.
  const int32_t len = 2 * r + 1, padded = w + 2 * r;
  std::vector<float> pad(static_cast<size_t>(padded), -std::numeric_limits<float>::infinity());
  std::vector<float> g(pad.size()), h(pad.size());
  for (int32_t y = top; y < bottom; ++y) {
    std::memcpy(pad.data() + r, RowPtr<const float>(src, y), static_cast<size_t>(w) * sizeof(float));
    for (int32_t b = 0; b < padded; b += len) {
      const int32_t e = std::min(b + len, padded);
      g[b] = pad[b];
      for (int32_t i = b + 1; i < e; ++i) g[i] = std::max(g[i - 1], pad[i]);
      h[e - 1] = pad[e - 1];
      for (int32_t i = e - 2; i >= b; --i) h[i] = std::max(h[i + 1], pad[i]);
    }
    float* m = row_max.data() + cols * static_cast<size_t>(y - top);
    // Pixel x's window is padded [x, x + len - 1].
    for (int32_t x = roi.left; x < roi.right; ++x) m[x - roi.left] = std::max(h[x], g[x + len - 1]);
  }
  std::vector<float> win(cols);
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    const int32_t y0 = std::max(y - r, top), y1 = std::min(y + r + 1, bottom);
    std::memcpy(win.data(), row_max.data() + cols * static_cast<size_t>(y0 - top), cols * sizeof(float));
    for (int32_t yy = y0 + 1; yy < y1; ++yy) {
      const float* m = row_max.data() + cols * static_cast<size_t>(yy - top);
      for (size_t i = 0; i < cols; ++i) win[i] = std::max(win[i], m[i]);
    }
    SuppressRow(win.data() - roi.left, RowPtr<const float>(src, y), RowPtr<float>(dst, y), roi.left, roi.right);
  }
  return S_OK;
}

int32_t ThreshCornerMap(SmartBuffer& map, float t, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&map}, roi);
  if (hr < 0) return hr;
  for (int32_t y = roi.top; y < roi.bottom; ++y) ThreshRow(RowPtr<float>(map, y), t, roi.left, roi.right);
  return S_OK;
}

int32_t CvtBuffFloatToChar(const SmartBuffer& src, SmartBuffer& dst, const Rect& roi) {
  int32_t hr = CheckFloatMaps({&src}, roi);
  if (hr < 0) return hr;
  if (!dst.data) return E_POINTER;
  if (!IsGray8(dst)) return E_NOTIMPL;
  if (!RowsFit(dst, 1) || !SameSize(src, dst)) return E_INVALIDARG;
  for (int32_t y = roi.top; y < roi.bottom; ++y) {
    CvtRow(RowPtr<const float>(src, y), RowPtr<uint8_t>(dst, y), roi.left, roi.right);
  }
  return S_OK;
}

int32_t LightPointRadius(int32_t long_side, float max_radius) {
  return static_cast<int32_t>(std::min(0.005f * static_cast<float>(long_side), max_radius));
}

namespace {

// The detector's kernels in the form `info` picks.
struct DetectKernels {
  Kernel<void (*)(const uint8_t*, float*, int32_t, int32_t)> lightness;
  Kernel<void (*)(const float*, const float*, const float*, int32_t, float*, float*, float*, int32_t, int32_t)> products;
  Kernel<int32_t (*)(const SmartBuffer&, const SmartBuffer&, const SmartBuffer&, SmartBuffer&, float, const Rect&)>
      response;
  Kernel<int32_t (*)(const SmartBuffer&, float&, float&, const Rect&)> min_max;
  Kernel<int32_t (*)(SmartBuffer&, float, float, float, float, const Rect&)> normalize;
  Kernel<int32_t (*)(const SmartBuffer&, SmartBuffer&, int32_t, const Rect&)> suppress;
  Kernel<int32_t (*)(SmartBuffer&, float, const Rect&)> threshold;
  Kernel<int32_t (*)(const SmartBuffer&, SmartBuffer&, const Rect&)> to_char;

  // The plain forms serve processors without AVX2 (there are no SSE4.1 ones).
  explicit DetectKernels(const SystemInfo& info)
      : lightness(Pick(info, &LightnessRow, "LightnessRow", KORVANE_AVX2(LightnessRow_AVX2), "LightnessRow_AVX2")),
        products(Pick(info, &ProductsRow, "ProductsRow", KORVANE_AVX2(ProductsRow_AVX2), "ProductsRow_AVX2")),
        response(Pick(info, &CalCornerResponse, "CalCornerResponse", KORVANE_AVX2(CalCornerResponse_AVX2),
                      "CalCornerResponse_AVX2")),
        min_max(Pick(info, &GetBuffMinMax, "GetBuffMinMax", KORVANE_AVX2(GetBuffMinMax_AVX2), "GetBuffMinMax_AVX2")),
        normalize(Pick(info, &NormalizeMinMax, "NormalizeMinMax", KORVANE_AVX2(NormalizeMinMax_AVX2),
                       "NormalizeMinMax_AVX2")),
        suppress(Pick(info, &NonMaximumSuppress, "NonMaximumSuppress", KORVANE_AVX2(NonMaximumSuppress_AVX2),
                      "NonMaximumSuppress_AVX2")),
        threshold(Pick(info, &ThreshCornerMap, "ThreshCornerMap", KORVANE_AVX2(ThreshCornerMap_AVX2),
                       "ThreshCornerMap_AVX2")),
        to_char(Pick(info, &CvtBuffFloatToChar, "CvtBuffFloatToChar", KORVANE_AVX2(CvtBuffFloatToChar_AVX2),
                     "CvtBuffFloatToChar_AVX2")) {}

  template <class F>
  static Kernel<F> Pick(const SystemInfo& info, F plain, const char* plain_name, F avx2, const char* avx2_name) {
    return ChooseKernel<F>(info, plain, plain_name, nullptr, "", avx2, avx2_name);
  }
};

// Float maps of one size carved out of one allocation: a block of several
// megabytes goes on huge pages where the system allows it (see
// AllocatePixels), where separate maps would each take a page fault every
// 4 KB, a large part of a 640-pixel detection's time.
struct MapBlock {
  SmartBuffer block;
  int32_t map_height = 0;

  int32_t Create(int32_t w, int32_t h, int32_t count) {
    map_height = h;
    return CreateSmartBufferData(block, w, h * count, PIXEL_FLOAT32);
  }
  SmartBuffer Map(int32_t i) const {
    SmartBuffer m = block;
    m.height = map_height;
    m.data = std::shared_ptr<unsigned char[]>(block.data, block.data.get() + static_cast<size_t>(block.stride) *
                                                                                  static_cast<size_t>(map_height) *
                                                                                  static_cast<size_t>(i));
    return m;
  }
};

// HarrisCorner with its four working maps (lightness and the three
// products) taken from `scratch`, from map `first` on. Only their roi is
// ever read, so they are not cleared.
int32_t HarrisWith(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& src, SmartBuffer& dst, float k,
                   int32_t d, const Rect& roi, const MapBlock& scratch, int32_t first) {
  int32_t hr;
  const DetectKernels kernels(info);
  SmartBuffer light = scratch.Map(first), dxx = scratch.Map(first + 1), dyy = scratch.Map(first + 2),
              dxy = scratch.Map(first + 3);
  // The response covers the roi; the rest of dst is cleared.
  const bool whole = roi.left == 0 && roi.top == 0 && roi.right == src.width && roi.bottom == src.height;
  if (!whole) FillMap(dst);

  // The lightness once, then the gradients (as GradientH and GradientV
  // compute them) straight into their products: no gradient maps. The
  // gradients sample d rows and columns around the roi, so the lightness
  // covers whole rows.
  const int32_t last_x = src.width - 1, last_y = src.height - 1;
  hr = RunBands(adapter, FullRect(src), [&](const Rect& band) {
    for (int32_t y = band.top; y < band.bottom; ++y) {
      kernels.lightness.fn(RowPtr<const uint8_t>(src, y), RowPtr<float>(light, y), 0, src.width);
    }
    return S_OK;
  });
  if (hr >= 0) {
    hr = RunBands(adapter, roi, [&](const Rect& band) {
      // Columns whose samples need no clamping, for a loop without it.
      const int32_t inner0 = std::max(band.left, std::min(d, band.right));
      const int32_t inner1 = std::max(inner0, std::min(band.right, src.width - d));
      for (int32_t y = band.top; y < band.bottom; ++y) {
        const float* l = RowPtr<const float>(light, y);
        const float* above = RowPtr<const float>(light, std::max(y - d, 0));
        const float* below = RowPtr<const float>(light, std::min(y + d, last_y));
        float* xx = RowPtr<float>(dxx, y);
        float* yy = RowPtr<float>(dyy, y);
        float* xy = RowPtr<float>(dxy, y);
        // Columns near the sides sample clamped columns.
        auto clamped = [&](int32_t x) {
          const float gx = (l[std::max(x - d, 0)] - l[std::min(x + d, last_x)]) / 255.0f;
          const float gy = (above[x] - below[x]) / 255.0f;
          xx[x] = gx * gx;
          yy[x] = gy * gy;
          xy[x] = gx * gy;
        };
        for (int32_t x = band.left; x < inner0; ++x) clamped(x);
        kernels.products.fn(l, above, below, d, xx, yy, xy, inner0, inner1);
        for (int32_t x = inner1; x < band.right; ++x) clamped(x);
      }
      return S_OK;
    });
  }
  if (LogStep("GradientH", hr) < 0) return hr;
  // Two box blurs each way over the products.
  for (SmartBuffer* b : {&dxx, &dyy, &dxy}) {
    BoxBlurParam blur;
    blur.src = MapView(*b, roi, PIXEL_FLOAT32);
    blur.radius = d;
    const Rect whole{0, 0, blur.src.width, blur.src.height};
    if ((hr = LogStep("BoxBlurH", RunBoxBlur(adapter, info, blur, whole, 2))) < 0) return hr;
  }
  hr = RunBands(adapter, roi, [&](const Rect& band) { return kernels.response.fn(dxx, dyy, dxy, dst, k, band); });
  if (LogStep(kernels.response.name, hr) < 0) return hr;
  float lo = 0.0f, hi = 0.0f;
  if ((hr = LogKernelCall("%s(dst, lo, hi, roi)", kernels.min_max.name, kernels.min_max.fn(dst, lo, hi, roi))) < 0) {
    return hr;
  }
  if (lo == hi) {
    FillMap(dst);
    return S_OK;
  }
  // Over [0, maximum], not [minimum, maximum]: negative responses (edges)
  // end at 0, and the scale does not depend on how strong the edges are.
  return LogStep(kernels.normalize.name, RunBands(adapter, roi, [&](const Rect& band) {
                   return kernels.normalize.fn(dst, 0.0f, hi, 0.0f, 255.0f, band);
                 }));
}

}  // namespace

int32_t HarrisCorner(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& src, SmartBuffer& dst, float k,
                     int32_t d, const Rect& roi) {
  int32_t hr = CheckMap(src, false);
  if (hr < 0) return hr;
  if (!dst.data) return E_POINTER;
  if (!IsFloat(dst)) return E_NOTIMPL;
  if (!RowsFit(dst, 4) || !SameSize(src, dst) || d < 0 || CheckRoi(roi, src) < 0) return E_INVALIDARG;
  MapBlock scratch;
  if (KORVANE_FAILED(scratch.Create(src.width, src.height, 4))) return hr;
  return HarrisWith(adapter, info, src, dst, k, d, roi, scratch, 0);
}

int32_t DetectLightPoints(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& src,
                          const LightPointSettings& settings, SmartBuffer& map) {
  int32_t hr = CheckMap(src, false);
  if (hr < 0) return hr;
  if (settings.nms_radius < 0) return E_INVALIDARG;
  const int32_t radius =
      settings.radius >= 0 ? settings.radius : LightPointRadius(std::max(src.width, src.height), 4.0f);
  // The dense response and Harris's working maps in one block.
  MapBlock maps;
  if (KORVANE_FAILED(maps.Create(src.width, src.height, 5))) return hr;
  SmartBuffer densive_corner_map = maps.Map(0);
  if (KORVANE_FAILED(CreateSmartBufferData(map, src.width, src.height, PIXEL_FLOAT32))) return hr;
  FillMap(map);
  const Rect roi = FullRect(src);
  if ((hr = LogStep("HarrisCorner", HarrisWith(adapter, info, src, densive_corner_map, settings.harris_k, radius, roi,
                                               maps, 1))) < 0) {
    return hr;
  }
  // Suppression and threshold in one band task: the threshold reads only
  // the pixels its band has just written.
  const DetectKernels kernels(info);
  return RunBands(adapter, roi, [&](const Rect& band) {
    const int32_t code = LogStep(kernels.suppress.name,
                                 kernels.suppress.fn(densive_corner_map, map, settings.nms_radius, band));
    return code < 0 ? code : LogStep(kernels.threshold.name, kernels.threshold.fn(map, settings.threshold, band));
  });
}

int32_t InitAutoBokehMap(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& src,
                         SmartBuffer& location_map) {
  if (!src.data || !location_map.data) return E_POINTER;
  int32_t hr;
  SmartBuffer sparse_corner_map;
  if ((hr = DetectLightPoints(adapter, info, src, LightPointSettings(), sparse_corner_map)) < 0) return hr;
  const DetectKernels kernels(info);
  return LogStep(kernels.to_char.name, RunBands(adapter, FullRect(src), [&](const Rect& band) {
                   return kernels.to_char.fn(sparse_corner_map, location_map, band);
                 }));
}

namespace {

// The first words of MT19937 for up to kHeadBatch seeds at once. Word k
// (k < 227) of the standard engine comes from the seeding's words k, k + 1
// and k + 397 alone, so only the first kHeadWords + 398 words of each
// seeding are made, and the seeds' recurrences run side by side so their
// multiplications overlap. A point draws three words (now and then a
// redrawn fourth); past kHeadWords the standard engine takes over.
constexpr int32_t kHeadWords = 6;
constexpr int32_t kHeadBatch = 8;
using HeadWords = uint32_t[kHeadWords];

void SeedHeads(const uint32_t* seeds, int32_t count, HeadWords* heads) {
  constexpr int32_t kSeeding = kHeadWords + 398;
  uint32_t x[kSeeding][kHeadBatch];
  for (int32_t s = 0; s < count; ++s) x[0][s] = seeds[s];
  for (uint32_t i = 1; i < static_cast<uint32_t>(kSeeding); ++i)
    for (int32_t s = 0; s < count; ++s) x[i][s] = 1812433253u * (x[i - 1][s] ^ (x[i - 1][s] >> 30)) + i;
  for (int32_t k = 0; k < kHeadWords; ++k)
    for (int32_t s = 0; s < count; ++s) {
      const uint32_t y = (x[k][s] & 0x80000000u) | (x[k + 1][s] & 0x7fffffffu);
      uint32_t z = x[k + 397][s] ^ (y >> 1) ^ ((y & 1u) ? 0x9908b0dfu : 0u);
      z ^= z >> 11;
      z ^= (z << 7) & 0x9d2c5680u;
      z ^= (z << 15) & 0xefc60000u;
      heads[s][k] = z ^ (z >> 18);
    }
}

// The words of MT19937 seeded with `seed`: its head, then the engine itself.
class SeededWords {
 public:
  SeededWords(uint32_t seed, const HeadWords& head) : m_seed(seed), m_head(head) {}
  uint32_t operator()() {
    if (m_used < kHeadWords) return m_head[m_used++];
    if (!m_rest) {
      m_rest = std::make_unique<Mt19937>(m_seed);
      m_rest->discard(kHeadWords);
    }
    return static_cast<uint32_t>((*m_rest)());
  }

 private:
  uint32_t m_seed;
  const HeadWords& m_head;
  int32_t m_used = 0;
  std::unique_ptr<Mt19937> m_rest;  // made only when a point draws past its head
};

LightPoint DrawFrom(SeededWords& gen, int32_t phase_count, int32_t color_count) {
  LightPoint p;
  p.phase = static_cast<int32_t>(DrawIndex(gen, static_cast<uint32_t>(phase_count)));
  p.random = DrawUnit(gen);
  p.color_index = static_cast<int32_t>(DrawIndex(gen, static_cast<uint32_t>(color_count)));
  return p;
}

}  // namespace

LightPoint DrawLightPoint(uint32_t seed, int32_t phase_count, int32_t color_count) {
  HeadWords head;
  SeedHeads(&seed, 1, &head);
  SeededWords gen(seed, head);
  return DrawFrom(gen, phase_count, color_count);
}

int32_t InitLightPointList(const SmartBuffer& map, int32_t phase_count, int32_t color_count, LightPointList& list) {
  list.clear();
  if (!map.data) return E_POINTER;
  const bool is_float = IsFloat(map);
  if (!is_float && !IsGray8(map)) return E_NOTIMPL;
  if (!RowsFit(map, is_float ? 4 : 1) || phase_count < 1 || color_count < 1) return E_INVALIDARG;
  // The marked pixels in scan order, then their draws a batch at a time.
  std::vector<uint32_t> marked;
  for (int32_t y = 0; y < map.height; ++y) {
    const uint8_t* row8 = RowPtr<const uint8_t>(map, y);
    const float* rowf = RowPtr<const float>(map, y);
    for (int32_t x = 0; x < map.width; ++x) {
      if (is_float ? rowf[x] == 1.0f : row8[x] == 1) marked.push_back(static_cast<uint32_t>(y * map.width + x));
    }
  }
  HeadWords heads[kHeadBatch];
  for (size_t first = 0; first < marked.size(); first += kHeadBatch) {
    const int32_t count = static_cast<int32_t>(std::min<size_t>(kHeadBatch, marked.size() - first));
    SeedHeads(marked.data() + first, count, heads);
    for (int32_t i = 0; i < count; ++i) {
      const uint32_t index = marked[first + static_cast<size_t>(i)];
      SeededWords gen(index, heads[i]);
      LightPoint p = DrawFrom(gen, phase_count, color_count);
      p.x = static_cast<int32_t>(index % static_cast<uint32_t>(map.width));
      p.y = static_cast<int32_t>(index / static_cast<uint32_t>(map.width));
      list.insert_or_assign(static_cast<int32_t>(index), p);
    }
  }
  return S_OK;
}

int32_t CopyLightPoints(const LightPointList& list, int32_t norm_w, int32_t norm_h, int32_t curve_samples,
                        LightPointSummary* summary, LightPointInfo* points, int32_t capacity) {
  if (!summary) return E_POINTER;
  if (capacity < 0 || (capacity > 0 && !points)) return E_INVALIDARG;
  summary->norm_width = norm_w;
  summary->norm_height = norm_h;
  summary->curve_samples = curve_samples;
  summary->count = static_cast<int32_t>(list.size());
  int32_t n = 0;
  for (auto it = list.begin(); it != list.end() && n < capacity; ++it, ++n) {
    const LightPoint& p = it->second;
    LightPointInfo& out = points[n];
    out = LightPointInfo();
    out.x = p.x;
    out.y = p.y;
    out.phase = p.phase;
    out.random = p.random;
    out.color_index = p.color_index;
    out.enabled = p.enabled;
    out.highlight = p.highlight;
  }
  return S_OK;
}

}  // namespace Korvane
