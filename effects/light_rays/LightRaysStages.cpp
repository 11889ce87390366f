// The colour stage.
#include <algorithm>

#include "core/ColorSpace.h"
#include "core/ImageChecks.h"
#include "core/LightMap.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {

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
      h = WrapHue(h + p.hue_shift, kLightRaysHueTurn);
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
