// Photos, shapes and a rendering rig shared by the sparkle tests.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "TestSupport.h"
#include "effects/sparkle/SparkleEffect.h"

namespace SparkleTest {

using Bytes = std::vector<uint8_t>;

// A dark, slightly noisy photo with small bright spots on a grid of
// `step` pixels: the light points the detector should find.
inline Bytes SpotsPhoto(int32_t w, int32_t h, int32_t step = 40, uint32_t seed = 3) {
  Bytes img = KorvaneTest::RandomBytes(static_cast<size_t>(w) * h * 4, seed);
  for (size_t i = 0; i < img.size(); ++i) img[i] = (i % 4 == 3) ? 255 : static_cast<uint8_t>(20 + img[i] % 12);
  for (int32_t cy = step / 2; cy < h; cy += step)
    for (int32_t cx = step / 2; cx < w; cx += step)
      for (int32_t y = std::max(0, cy - 3); y <= std::min(h - 1, cy + 3); ++y)
        for (int32_t x = std::max(0, cx - 3); x <= std::min(w - 1, cx + 3); ++x) {
          const float r2 = static_cast<float>((x - cx) * (x - cx) + (y - cy) * (y - cy));
          const int32_t v = static_cast<int32_t>(235.0f * std::exp(-r2 / 3.0f));
          uint8_t* p = &img[(static_cast<size_t>(y) * w + x) * 4];
          for (int32_t c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>(std::min(255, p[c] + v - c * 10 * (v > 0)));
        }
  return img;
}

// A white four-pointed star: a soft core and two thin lines through the centre.
inline Bytes StarShape(int32_t size = Korvane::SPK_SIZE, uint8_t tint_red = 255) {
  Bytes img(static_cast<size_t>(size) * size * 4, 0);
  const float c = (size - 1) * 0.5f;
  for (int32_t y = 0; y < size; ++y)
    for (int32_t x = 0; x < size; ++x) {
      const float dx = std::fabs(x - c), dy = std::fabs(y - c);
      const float core = std::exp(-(dx * dx + dy * dy) / (size * 0.6f));
      const float spike = std::max(dx < 1.5f ? 1.0f - dy / c : 0.0f, dy < 1.5f ? 1.0f - dx / c : 0.0f);
      const int32_t v = static_cast<int32_t>(255.0f * std::min(1.0f, core + std::max(0.0f, spike)));
      uint8_t* p = &img[(static_cast<size_t>(y) * size + x) * 4];
      p[0] = p[1] = static_cast<uint8_t>(v);
      p[2] = static_cast<uint8_t>(v * tint_red / 255);
      p[3] = 255;
    }
  return img;
}

// An effect with a source and an automatic shape, on its own pool.
struct Rig {
  KorvaneTest::EffectRig<Korvane::SparkleEffect> rig;
  Bytes photo, star;
  Korvane::ImageBuffer src, shape;
  int32_t w, h;

  Rig(int32_t width, int32_t height, int workers = 2,
      const Korvane::SystemInfo& info = KorvaneTest::Level(Korvane::SIMD_SSE41), int32_t step = 40)
      : rig(workers), photo(SpotsPhoto(width, height, step)), star(StarShape()), w(width), h(height) {
    rig->SetSystemInfo(info);
    src = Korvane::MakeImageBuffer(photo.data(), w, h);
    shape = Korvane::MakeImageBuffer(star.data(), Korvane::SPK_SIZE, Korvane::SPK_SIZE);
    EXPECT_EQ(rig->SetSource(&src), S_OK);
    EXPECT_EQ(rig->SetAutoSparkleShape(&shape), S_OK);
  }
  Korvane::SparkleEffect* operator->() { return rig.fx.get(); }

  // Renders the whole photo; the result code goes to *code when given.
  Bytes Render(const Korvane::SparkleParam& p, const Korvane::SparkleRenderParam& a = {},
               const Korvane::SparkleRenderParam& m = {}, int32_t* code = nullptr) {
    Bytes out(photo.size(), 0);
    Korvane::ImageBuffer dst = Korvane::MakeImageBuffer(out.data(), w, h);
    const int32_t hr = rig->Process(&p, &a, &m, &src, &dst, Korvane::Rect{0, 0, w, h});
    if (code) *code = hr;
    else EXPECT_EQ(hr, S_OK);
    return out;
  }
};

// Number of bytes of the colour channels that differ.
inline size_t ChangedChannels(const Bytes& a, const Bytes& b) {
  size_t n = 0;
  for (size_t i = 0; i < a.size(); ++i) n += (i % 4 != 3) && a[i] != b[i];
  return n;
}

}  // namespace SparkleTest
