// Highlight detection, the one-sided ray smear and the colour stage.
#include <algorithm>

#include "core/ColorSpace.h"
#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {

int32_t HighLightDetect(const HighLightParam& p, const Rect& band) {
  if (!p.src || !p.mask || !p.dst || !p.src->data || !p.mask->data || !p.dst->data) return E_POINTER;
  const Rect r = Clip(band, p.dst->width, p.dst->height);
  for (int32_t y = r.top; y < r.bottom; ++y) {
    const uint8_t* s = RowPtr(*p.src, y);
    const uint8_t* m = RowPtr(*p.mask, y);
    uint8_t* d = RowPtr(*p.dst, y);
    for (int32_t x = r.left; x < r.right; ++x) {
      const uint8_t* px = s + 4 * x;
      uint8_t* o = d + 4 * x;
      const int32_t mx = std::max(px[0], std::max(px[1], px[2]));
      const int32_t mn = std::min(px[0], std::min(px[1], px[2]));
      const int32_t lightness = (mx + mn) >> 1;
      if (p.threshold > static_cast<float>(lightness)) {
        o[0] = o[1] = o[2] = 0;
      } else {
        for (int32_t c = 0; c < 3; ++c) o[c] = static_cast<uint8_t>(px[c] * m[x] / 255);
      }
    }
  }
  return S_OK;
}

int32_t SmearRows(const SmearRowsParam& p, const Rect& band) {
  if (!p.src || !p.dst || !p.lines || !p.row_gain || !p.src->data || !p.dst->data) return E_POINTER;
  if (p.length < 1 || p.length > kMaxRayLength) return E_INVALIDARG;
  const uint32_t len = static_cast<uint32_t>(p.length);
  // Weights L, L - 1, ..., 1 sum to L (L + 1) / 2; dividing by half of that
  // lets a source a quarter of the ray long fill its ray. The gain (1/256) is
  // folded into one 2^40-scaled multiplier per row. Sums stay below
  // 255 x 12.5M < 2^32.
  const uint64_t weight_sum = static_cast<uint64_t>(len) * (len + 1) / 4 + 1;
  const int32_t top = std::max(band.top, 0), bottom = std::min(band.bottom, p.dst->height);
  for (int32_t j = top; j < bottom; ++j) {
    const RayLine& l = p.lines[j];
    const uint8_t* in = RowPtr(*p.src, j);
    uint8_t* out = RowPtr(*p.dst, j);
    const uint64_t mul = (static_cast<uint64_t>(p.row_gain[j]) << 32) / weight_sum;
    uint32_t t[3] = {0, 0, 0};  // sum of (L - k) in[c - k]
    uint32_t s[3] = {0, 0, 0};  // sum of in[c - k], k < L
    // Every earlier sample loses one step of weight, the new one enters with L.
    const auto step = [&](int32_t c, const uint8_t* gone) {
      const uint8_t* now = in + 4 * c;
      uint8_t* o = out + 4 * c;
      for (int32_t k = 0; k < 3; ++k) {
        t[k] = t[k] - s[k] + len * now[k];
        s[k] = s[k] + now[k] - gone[k];
        const uint64_t v = (static_cast<uint64_t>(t[k]) * mul + (uint64_t{1} << 39)) >> 40;
        o[k] = static_cast<uint8_t>(v > 255 ? 255 : v);
      }
      o[3] = 255;
    };
    static const uint8_t kNothing[4] = {0, 0, 0, 0};
    const int32_t full = std::min(l.hi, l.lo + static_cast<int32_t>(len));
    int32_t c = l.lo;
    for (; c < full; ++c) step(c, kNothing);
    for (; c < l.hi; ++c) step(c, in + 4 * (c - static_cast<int32_t>(len)));
  }
  return S_OK;
}

int32_t ShiftHue(int32_t h, int32_t shift) {
  h += shift;
  if (h > 35999) h -= 35999;
  if (h < 0) h += 35999;
  return std::min(std::max(h, 0), 35999);
}

int32_t PostProcess(const PostProcessParam& p, const Rect& band) {
  if (!p.img || !p.img->data || !p.value_lut || !p.sat_lut) return E_POINTER;
  const Rect r = Clip(band, p.img->width, p.img->height);
  for (int32_t y = r.top; y < r.bottom; ++y) {
    uint8_t* row = RowPtr(*p.img, y);
    for (int32_t x = r.left; x < r.right; ++x) {
      uint8_t* px = row + 4 * x;
      if ((px[0] | px[1] | px[2]) == 0) continue;  // both tables keep 0 at 0
      int32_t h, s, v;
      RgbToHsv(px[2], px[1], px[0], h, s, v);
      s = std::min(p.sat_lut[std::min(s >> 7, 255)], kHsvMax);
      v = std::min(p.value_lut[v >> 7], kHsvMax);
      h = ShiftHue(h, p.hue_shift);
      int32_t rr, gg, bb;
      HsvToRgb(h, s, v, rr, gg, bb);
      px[0] = static_cast<uint8_t>(bb);
      px[1] = static_cast<uint8_t>(gg);
      px[2] = static_cast<uint8_t>(rr);
    }
  }
  return S_OK;
}

}  // namespace Korvane
