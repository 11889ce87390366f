// Images and a slow reference for the glitch tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "core/ImageBuffer.h"

namespace GlitchTest {

struct Bgra {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint8_t> pixels;

  Bgra(int32_t w, int32_t h, uint8_t fill = 0) : width(w), height(h), pixels(static_cast<size_t>(w) * h * 4, fill) {}
  uint8_t* at(int32_t x, int32_t y) { return &pixels[(static_cast<size_t>(y) * width + x) * 4]; }
  const uint8_t* at(int32_t x, int32_t y) const { return &pixels[(static_cast<size_t>(y) * width + x) * 4]; }
  Korvane::ImageBuffer Buffer() { return Korvane::MakeImageBuffer(pixels.data(), width, height); }
};

// Every byte random, alpha included, so any misplaced byte shows.
inline Bgra RandomImage(int32_t w, int32_t h, uint32_t seed) {
  Bgra img(w, h);
  std::mt19937 rng(seed);
  for (uint8_t& v : img.pixels) v = static_cast<uint8_t>(rng());
  return img;
}

using Offsets = std::array<std::array<int32_t, 2>, 3>;  // (x, y) of blue, green, red

// Each colour channel read from (x - ox, y - oy) clamped into the image,
// alpha from the same pixel.
inline Bgra Reference(const Bgra& src, const Offsets& off) {
  Bgra out(src.width, src.height);
  for (int32_t y = 0; y < src.height; ++y)
    for (int32_t x = 0; x < src.width; ++x) {
      for (int c = 0; c < 3; ++c) {
        const int64_t sx = std::clamp<int64_t>(int64_t{x} - off[c][0], 0, src.width - 1);
        const int64_t sy = std::clamp<int64_t>(int64_t{y} - off[c][1], 0, src.height - 1);
        out.at(x, y)[c] = src.at(static_cast<int32_t>(sx), static_cast<int32_t>(sy))[c];
      }
      out.at(x, y)[3] = src.at(x, y)[3];
    }
  return out;
}

// First differing pixel, for readable failures.
inline ::testing::AssertionResult SamePixels(const Bgra& got, const Bgra& want) {
  if (got.width != want.width || got.height != want.height) return ::testing::AssertionFailure() << "size differs";
  for (int32_t y = 0; y < got.height; ++y)
    for (int32_t x = 0; x < got.width; ++x)
      for (int c = 0; c < 4; ++c)
        if (got.at(x, y)[c] != want.at(x, y)[c])
          return ::testing::AssertionFailure() << "pixel (" << x << "," << y << ") byte " << c << ": got "
                                               << int{got.at(x, y)[c]} << ", want " << int{want.at(x, y)[c]};
  return ::testing::AssertionSuccess();
}

}  // namespace GlitchTest
