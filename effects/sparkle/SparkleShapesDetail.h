// Internal to the variant samplers: the start and step of a row in 16.16
// fixed point and the pixels that need the careful path, shared by the
// plain, SSE4.1 and AVX2 forms so all sample exactly the same positions and
// weights.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "core/ImageChecks.h"
#include "effects/sparkle/SparkleShapes.h"

namespace Korvane {
namespace sparkle_detail {

// Row y of a variant: each variant pixel, scaled to the level and turned back
// about the centre, samples the level. Positions step along the row in 16.16
// fixed point (no float work per pixel); the top 8 bits of the fraction are
// the bilinear weight.
struct RowWalk {
  int64_t su, sv, du, dv;
  RowWalk(const VariantJob& j, int32_t y) {
    const int32_t n = j.level->width, d = j.variant->d;
    const double k = static_cast<double>(n) / d;
    const double cd = (d - 1) * 0.5, cn = (n - 1) * 0.5;
    const double dy = (y - cd) * k, dx0 = -cd * k;
    su = Fixed(j.cos_a * dx0 + j.sin_a * dy + cn);
    sv = Fixed(-j.sin_a * dx0 + j.cos_a * dy + cn);
    du = Fixed(j.cos_a * k);
    dv = Fixed(-j.sin_a * k);
  }
  static int64_t Fixed(double f) { return static_cast<int64_t>(std::llround(f * 65536.0)); }
};

// Whether the 2 x 2 taps at (x0, y0) lie wholly outside an n x n level, or
// wholly inside it.
inline bool Outside(int32_t x0, int32_t y0, int32_t n) {
  return static_cast<uint32_t>(x0 + 1) > static_cast<uint32_t>(n) || static_cast<uint32_t>(y0 + 1) > static_cast<uint32_t>(n);
}
inline bool Inside(int32_t x0, int32_t y0, int32_t n) { return x0 >= 0 && y0 >= 0 && x0 + 1 < n && y0 + 1 < n; }

// A pixel whose taps straddle the level's edge: only the taps inside count.
inline void EdgePixel(const SmartBuffer& src, int32_t x0, int32_t y0, uint32_t wx, uint32_t wy, uint8_t* out) {
  const int32_t n = src.width;
  const uint32_t w[4] = {(256 - wx) * (256 - wy), wx * (256 - wy), (256 - wx) * wy, wx * wy};
  uint32_t acc[4] = {32768, 32768, 32768, 32768};
  for (int32_t t = 0; t < 4; ++t) {
    const int32_t px = x0 + (t & 1), py = y0 + (t >> 1);
    if (px < 0 || py < 0 || px >= n || py >= n) continue;
    const uint8_t* p = RowPtr(src, py) + static_cast<ptrdiff_t>(px) * 4;
    for (int32_t c = 0; c < 4; ++c) acc[c] += p[c] * w[t];
  }
  for (int32_t c = 0; c < 4; ++c) out[c] = static_cast<uint8_t>(acc[c] >> 16);
}

// True (and the pixel black) when all four taps are black: most of a star.
inline bool BlackTaps(const uint8_t* a, const uint8_t* b, uint8_t* out) {
  uint64_t pa, pb;
  std::memcpy(&pa, a, 8);
  std::memcpy(&pb, b, 8);
  if ((pa | pb) != 0) return false;
  std::memset(out, 0, 4);
  return true;
}

// One variant pixel from taps at (x0, y0) with weights wx, wy: black when
// its taps lie outside the level, through EdgePixel when they straddle its
// edge, black when all four are black (most of a star), otherwise mixed by
// mix(a, b, wx, wy, out), a and b the top and bottom taps' rows.
template <class Mix>
inline void SamplePixel(const SmartBuffer& src, int32_t x0, int32_t y0, uint32_t wx, uint32_t wy, uint8_t* out,
                        Mix&& mix) {
  const int32_t n = src.width;
  if (Outside(x0, y0, n)) {
    std::memset(out, 0, 4);
    return;
  }
  if (!Inside(x0, y0, n)) {
    EdgePixel(src, x0, y0, wx, wy, out);
    return;
  }
  const uint8_t* a = RowPtr(src, y0) + static_cast<ptrdiff_t>(x0) * 4;
  const uint8_t* b = a + src.stride;
  if (BlackTaps(a, b, out)) return;
  mix(a, b, wx, wy, out);
}

// The plain mix: the row pairs first, then the two rows: the same integers
// as the four weights (256 - wx)(256 - wy), ... applied at once.
inline void MixTaps(const uint8_t* a, const uint8_t* b, uint32_t wx, uint32_t wy, uint8_t* out) {
  for (int32_t c = 0; c < 4; ++c) {
    const uint32_t top = a[c] * (256 - wx) + a[c + 4] * wx, bottom = b[c] * (256 - wx) + b[c + 4] * wx;
    out[c] = static_cast<uint8_t>((top * (256 - wy) + bottom * wy + 32768u) >> 16);
  }
}

// Row y of a variant (in its held part) from column `from` of that part
// on, pixel by pixel through SamplePixel.
template <class Mix>
inline void WalkVariantRow(const VariantJob& j, int32_t y, Mix&& mix, int32_t from = 0) {
  const Rect held = j.variant->Held();
  RowWalk walk(j, y);
  // The walk from column 0 to the first column, in one step of the same
  // fixed-point sums.
  walk.su += (held.left + from) * walk.du;
  walk.sv += (held.left + from) * walk.dv;
  uint8_t* out = RowPtr(j.variant->shape, y - held.top) + static_cast<ptrdiff_t>(from) * 4;
  for (int32_t x = held.left + from; x < held.right; ++x, out += 4, walk.su += walk.du, walk.sv += walk.dv) {
    const int32_t x0 = static_cast<int32_t>(walk.su >> 16), y0 = static_cast<int32_t>(walk.sv >> 16);
    const uint32_t wx = static_cast<uint32_t>(walk.su >> 8) & 255u, wy = static_cast<uint32_t>(walk.sv >> 8) & 255u;
    SamplePixel(*j.level, x0, y0, wx, wy, out, mix);
  }
}

}  // namespace sparkle_detail
}  // namespace Korvane
