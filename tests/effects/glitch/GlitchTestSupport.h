// A slow reference for the glitch tests (random images come from the shared
// test support).
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "TestSupport.h"

namespace GlitchTest {

using KorvaneTest::RandomBytes;

using Offsets = std::array<std::array<int32_t, 2>, 3>;  // (x, y) of blue, green, red

// Each colour channel read from (x - ox, y - oy) clamped into the image,
// alpha from the pixel itself. Packed BGRA rows.
inline std::vector<uint8_t> Reference(const std::vector<uint8_t>& src, int32_t w, int32_t h, const Offsets& off) {
  std::vector<uint8_t> out(src.size());
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      for (int c = 0; c < 3; ++c) {
        const int64_t sx = std::clamp<int64_t>(int64_t{x} - off[c][0], 0, w - 1);
        const int64_t sy = std::clamp<int64_t>(int64_t{y} - off[c][1], 0, h - 1);
        out[(size_t(y) * w + x) * 4 + c] = src[(size_t(sy) * w + size_t(sx)) * 4 + c];
      }
      out[(size_t(y) * w + x) * 4 + 3] = src[(size_t(y) * w + x) * 4 + 3];
    }
  return out;
}

}  // namespace GlitchTest
