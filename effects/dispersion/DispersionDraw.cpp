// The circle table and the particle blend.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "effects/dispersion/DispersionKernels.h"

namespace Korvane {

void CircleTable::Build(float max_radius) {
  radius_steps = std::max(1, static_cast<int32_t>(std::ceil(max_radius * kSub)));
  // Sizes first, so the three arrays are allocated once.
  size_t cells = 0, rows = 0;
  for (int32_t k = 1; k <= radius_steps; ++k) {
    const int32_t half = static_cast<int32_t>(std::ceil(static_cast<float>(k) / kSub + 0.5f));
    const size_t side = 2 * static_cast<size_t>(half) + 1;
    cells += side * side * kSub * kSub;
    rows += side * kSub * kSub;
  }
  entries.assign(static_cast<size_t>(radius_steps) * kSub * kSub, Entry{});
  cover.assign(cells + kCoverSpare, 0);
  spans.assign(rows * 2, 0);

  size_t c = 0, s = 0;
  for (int32_t k = 1; k <= radius_steps; ++k) {
    const float r = static_cast<float>(k) / kSub;
    const float r_drawn = std::max(r, 0.5f);
    const float weight = (r * r) / (r_drawn * r_drawn);
    const int32_t half = static_cast<int32_t>(std::ceil(r + 0.5f));
    const int32_t side = 2 * half + 1;
    for (int32_t sy = 0; sy < kSub; ++sy) {
      for (int32_t sx = 0; sx < kSub; ++sx) {
        Entry& e = entries[static_cast<size_t>(k - 1) * kSub * kSub + sy * kSub + sx];
        e.cover = static_cast<uint32_t>(c);
        e.spans = static_cast<uint32_t>(s);
        e.half = half;
        const float cx = half + static_cast<float>(sx) / kSub;
        const float cy = half + static_cast<float>(sy) / kSub;
        for (int32_t j = 0; j < side; ++j) {
          int32_t x0 = side, x1 = 0;
          for (int32_t i = 0; i < side; ++i) {
            // Coverage of a pixel by a disc, from the distance of its centre:
            // a one-pixel ramp across the rim.
            // Discs below half a pixel are drawn as a half-pixel disc of
            // proportionally less weight, so their area stays right.
            const float d = std::sqrt((i - cx) * (i - cx) + (j - cy) * (j - cy));
            const float a = std::min(1.0f, std::max(0.0f, r_drawn + 0.5f - d)) * weight;
            const uint16_t v = static_cast<uint16_t>(a * 256.0f + 0.5f);
            cover[c + static_cast<size_t>(j) * side + i] = v;
            if (v != 0) {
              x0 = std::min(x0, i);
              x1 = i + 1;
            }
          }
          if (x1 <= x0) x0 = x1 = 0;
          spans[s + 2 * static_cast<size_t>(j)] = static_cast<uint8_t>(x0);
          spans[s + 2 * static_cast<size_t>(j) + 1] = static_cast<uint8_t>(x1);
        }
        c += static_cast<size_t>(side) * side;
        s += 2 * static_cast<size_t>(side);
      }
    }
  }
}

void DispersionDrawParticle(const CircleTable& table, const FrameParticle& p, int32_t x0, int32_t x1, int32_t y0,
                            int32_t y1, uint8_t* origin, int32_t ox, int32_t oy, int64_t stride) {
  const uint32_t pb = p.bgra[0], pg = p.bgra[1], pr = p.bgra[2], pa = p.bgra[3];
  const uint32_t alpha = static_cast<uint32_t>(p.alpha);
  ForEachDiscRow(table, p, x0, x1, y0, y1, origin, ox, oy, stride,
                 [&](int32_t, int32_t a, int32_t b, const uint16_t* cov, uint8_t* row) {
                   for (int32_t x = a; x < b; ++x) {
                     // (out * (256 - w) + colour * w + 128) >> 8: every term fits
                     // 16 bits unsigned, which the SSE form relies on.
                     const uint32_t w = (cov[x] * alpha + 128) >> 8;
                     const uint32_t keep = 256 - w;
                     uint8_t* px = row + static_cast<int64_t>(x) * 4;
                     px[0] = static_cast<uint8_t>((px[0] * keep + pb * w + 128) >> 8);
                     px[1] = static_cast<uint8_t>((px[1] * keep + pg * w + 128) >> 8);
                     px[2] = static_cast<uint8_t>((px[2] * keep + pr * w + 128) >> 8);
                     px[3] = static_cast<uint8_t>((px[3] * keep + pa * w + 128) >> 8);
                   }
                 });
}

}  // namespace Korvane
