// Plain form of "HighLightDetect": the light sources of the half-size photo.
#include <algorithm>

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

}  // namespace Korvane
