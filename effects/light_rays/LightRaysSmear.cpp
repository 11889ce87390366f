// Plain form of the one-sided ray smear: running sums per channel.
#include <algorithm>

#include "core/ImageChecks.h"
#include "effects/light_rays/LightRaysSmear.h"

namespace Korvane {

int32_t SmearRows(const SmearRowsParam& p, const Rect& band) {
  const int32_t hr = light_rays_detail::CheckSmear(p);
  if (hr < 0) return hr;
  const int32_t len = p.length;
  for (int32_t j = std::max(band.top, 0); j < band.bottom; ++j) {
    const RayLine& l = p.dst->lines[j];
    // Both rows hold columns [lo, hi): byte 4 (c - lo) is column c.
    const uint8_t* in = reinterpret_cast<const uint8_t*>(p.src->Row(j));
    uint8_t* out = reinterpret_cast<uint8_t*>(p.dst->Row(j));
    const float k = light_rays_detail::SmearScale(p.row_gain[j], len);
    int32_t t[3] = {0, 0, 0};  // sum of (L - i) in[c - i]
    int32_t s[3] = {0, 0, 0};  // sum of in[c - i], i < L
    // Every earlier sample loses one step of weight, the new one enters with L.
    const auto step = [&](int32_t c, const uint8_t* gone) {
      const uint8_t* now = in + 4 * (c - l.lo);
      uint8_t* o = out + 4 * (c - l.lo);
      for (int32_t ch = 0; ch < 3; ++ch) {
        t[ch] = t[ch] - s[ch] + len * now[ch];
        s[ch] = s[ch] + now[ch] - gone[ch];
        const int32_t v = static_cast<int32_t>(static_cast<float>(t[ch]) * k + 0.5f);
        o[ch] = static_cast<uint8_t>(std::min(v, 255));
      }
      o[3] = 255;
    };
    static const uint8_t kNothing[4] = {0, 0, 0, 0};
    const int32_t full = std::min(l.hi, l.lo + len);
    int32_t c = l.lo;
    for (; c < full; ++c) step(c, kNothing);
    for (; c < l.hi; ++c) step(c, in + 4 * (c - len - l.lo));
  }
  return S_OK;
}

}  // namespace Korvane
