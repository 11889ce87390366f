#include "effects/sparkle/SparkleShapes.h"

#include <cmath>
#include <cstring>

#include "core/BandTask.h"
#include "core/BilinearResize.h"
#include "core/DebugLog.h"
#include "core/ImageChecks.h"
#include "core/SmartBuffer.h"

namespace Korvane {

int32_t RotateShape(CThreadAdapter& adapter, const SmartBuffer& src, SmartBuffer& dst, float degrees) {
  if (!src.data || !dst.data) return E_POINTER;
  if (!IsBgra(src) || !IsBgra(dst)) return E_NOTIMPL;
  if (!SameSize(src, dst) || !RowsFit(src, 4) || !RowsFit(dst, 4) || !std::isfinite(degrees)) return E_INVALIDARG;
  double turn = std::fmod(static_cast<double>(degrees), 360.0);
  if (turn < 0.0) turn += 360.0;
  const int32_t w = src.width, h = src.height;
  if (turn == 0.0) {
    for (int32_t y = 0; y < h; ++y) std::memcpy(RowPtr(dst, y), RowPtr(src, y), static_cast<size_t>(w) * 4);
    return S_OK;
  }
  // Inverse mapping: each destination pixel samples src at its position
  // turned back about the centre. Weights in 1/256, as the resize kernels.
  const double a = turn * 3.14159265358979323846 / 180.0;
  const float c = static_cast<float>(std::cos(a)), s = static_cast<float>(std::sin(a));
  const float cx = (w - 1) * 0.5f, cy = (h - 1) * 0.5f;
  return RunBands(adapter, FullRect(w, h), [&](const Rect& band) {
    for (int32_t y = band.top; y < band.bottom; ++y) {
      uint8_t* out = RowPtr(dst, y);
      const float dy = static_cast<float>(y) - cy;
      for (int32_t x = 0; x < w; ++x, out += 4) {
        const float dx = static_cast<float>(x) - cx;
        const float sx = c * dx + s * dy + cx;
        const float sy = -s * dx + c * dy + cy;
        const float fx0 = std::floor(sx), fy0 = std::floor(sy);
        const int32_t x0 = static_cast<int32_t>(fx0), y0 = static_cast<int32_t>(fy0);
        const int32_t wx = static_cast<int32_t>((sx - fx0) * 256.0f + 0.5f);
        const int32_t wy = static_cast<int32_t>((sy - fy0) * 256.0f + 0.5f);
        uint32_t acc[4] = {0, 0, 0, 0};
        const int32_t weights[4] = {(256 - wx) * (256 - wy), wx * (256 - wy), (256 - wx) * wy, wx * wy};
        for (int32_t k = 0; k < 4; ++k) {
          const int32_t px = x0 + (k & 1), py = y0 + (k >> 1);
          if (px < 0 || py < 0 || px >= w || py >= h || weights[k] == 0) continue;
          const uint8_t* p = RowPtr(src, py) + static_cast<ptrdiff_t>(px) * 4;
          for (int32_t ch = 0; ch < 4; ++ch) acc[ch] += static_cast<uint32_t>(p[ch] * weights[k]);
        }
        for (int32_t ch = 0; ch < 4; ++ch) out[ch] = static_cast<uint8_t>((acc[ch] + 32768u) >> 16);
      }
    }
    return S_OK;
  });
}

int32_t HalveShape(const SmartBuffer& src, SmartBuffer& dst) {
  if (!src.data) return E_POINTER;
  if (!IsBgra(src)) return E_NOTIMPL;
  if (src.width < 2 || src.height < 2 || !RowsFit(src, 4)) return E_INVALIDARG;
  int32_t hr;
  if ((hr = CreateSmartBufferData(dst, src.width / 2, src.height / 2, PIXEL_BGRA32)) < 0) return hr;
  for (int32_t y = 0; y < dst.height; ++y) {
    const uint8_t* a = RowPtr(src, 2 * y);
    const uint8_t* b = RowPtr(src, 2 * y + 1);
    uint8_t* out = RowPtr(dst, y);
    for (int32_t i = 0; i < dst.width * 4; ++i) {
      const int32_t j = (i & ~3) * 2 + (i & 3);
      out[i] = static_cast<uint8_t>((a[j] + a[j + 4] + b[j] + b[j + 4] + 2) >> 2);
    }
  }
  return S_OK;
}

int32_t ShapePyramid::Build(const SmartBuffer& shape) {
  levels[0] = shape;
  count = 1;
  int32_t hr;
  while (count < kMaxLevels && levels[count - 1].width >= 4 && levels[count - 1].height >= 4) {
    if ((hr = HalveShape(levels[count - 1], levels[count])) < 0) return hr;
    ++count;
  }
  return S_OK;
}

const SmartBuffer& ShapePyramid::LevelFor(int32_t d) const {
  int32_t i = 0;
  while (i + 1 < count && levels[i + 1].width >= d) ++i;
  return levels[i];
}

int32_t MakeSparkleVariant(CThreadAdapter& adapter, const SystemInfo& info, const ShapePyramid& pyramid,
                           int32_t d, SparkleVariant& variant, const char* what) {
  int32_t hr;
  if (variant.d != d || !variant.shape.data) {
    variant.d = 0;
    if (KORVANE_FAILED(CreateSmartBufferData(variant.shape, d, d, PIXEL_BGRA32)) ||
        KORVANE_FAILED(CreateSmartBufferData(variant.tmp, d + 1, d + 1, PIXEL_BGRA32))) {
      return hr;
    }
    variant.d = d;
  }
  ResizeParam p;
  p.src = pyramid.LevelFor(d);
  p.dst = variant.shape;
  p.src_roi = FullRect(p.src);
  if ((hr = RunBilinearResize(adapter, info, p, FullRect(d, d))) < 0) {
    DebugLog("[Korvane] ResizeBuffer(%s, scaled_sparkle_type.shape) Error! - Return Code: %x", what,
             static_cast<unsigned>(hr));
  }
  return hr;
}

int32_t OddShapeSize(float length) {
  int32_t d = length > 3.0f ? static_cast<int32_t>(length) : 3;
  return d | 1;
}

}  // namespace Korvane
