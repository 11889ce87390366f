#include "effects/sparkle/SparkleColor.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/ColorSpace.h"
#include "core/ImageChecks.h"
#include "core/LightMap.h"

namespace Korvane {

namespace {

// Fixed-point factor in 1/256.
int32_t Q8(float v) { return static_cast<int32_t>(std::lround(v * 256.0f)); }

LightColor FromHsv(int32_t h, int32_t s) {
  int32_t r, g, b;
  HsvToRgb(h, s, kHsvMax, r, g, b);
  return LightColor{b, g, r};
}

}  // namespace

LightColor SparklePhotoColor(const uint8_t* bgr) {
  int32_t h, s, v;
  RgbToHsv(bgr[2], bgr[1], bgr[0], h, s, v);
  return FromHsv(h, std::min(kHsvMax, 2 * s));
}

LightColor SparkleRandomColor(int32_t color_index) {
  return FromHsv(static_cast<int32_t>(RandomHueTable()[static_cast<size_t>(color_index)]), kHsvMax * 7 / 10);
}

bool SparkleAdjustIsIdentity(const SparkleAdjustParam& p) {
  return Q8(1.0f + p.saturation) == 256 && Q8(p.factor * (1.0f + p.brightness)) == 256;
}

namespace sparkle_detail {

void AdjustRow(uint8_t* px, int32_t count, int32_t sat, int32_t gain) {
  for (int32_t x = 0; x < count; ++x, px += 4) {
    const int32_t b = px[0], g = px[1], rr = px[2];
    if ((b | g | rr) == 0) continue;  // most of a light map is dark
    // Grey with the usual luma weights (in 1/256).
    const int32_t grey = (29 * b + 150 * g + 77 * rr + 128) >> 8;
    const int32_t c[3] = {b, g, rr};
    for (int32_t k = 0; k < 3; ++k) {
      const int32_t s = grey * 256 + (c[k] - grey) * sat;     // 1/256
      const int32_t v = (std::max(s, 0) * gain + 32768) >> 16;  // back to bytes
      px[k] = static_cast<uint8_t>(std::min(v, 255));
    }
  }
}

int32_t RunAdjust(const SparkleAdjustParam& p, const Rect& band, AdjustRowFn row) {
  if (!p.light.data) return E_POINTER;
  if (!IsBgra(p.light)) return E_NOTIMPL;
  const Rect r = Clip(Rect{p.region.left, band.top, p.region.right, band.bottom}, p.light.width, p.light.height);
  if (!RowsFit(p.light, 4)) return E_INVALIDARG;
  if (IsEmpty(r)) return S_OK;
  const int32_t sat = Q8(1.0f + p.saturation);
  const int32_t gain = Q8(p.factor * (1.0f + p.brightness));
  for (int32_t y = r.top; y < r.bottom; ++y) row(RowPtr(p.light, y) + static_cast<ptrdiff_t>(r.left) * 4, RectWidth(r), sat, gain);
  return S_OK;
}

}  // namespace sparkle_detail

int32_t AdjustSparkleColor(const SparkleAdjustParam& p, const Rect& band) {
  return sparkle_detail::RunAdjust(p, band, sparkle_detail::AdjustRow);
}

}  // namespace Korvane
