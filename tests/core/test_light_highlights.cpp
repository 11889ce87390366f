// Which light points sit on real light: lamps are kept, texture and lit
// lines that the corner detector also answers to are not; and the
// lightness measures the rule reads.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "core/ImageChecks.h"
#include "core/LightHighlights.h"
#include "core/PhotoMeasures.h"
#include "core/SmartBuffer.h"

namespace Korvane {
namespace {

void Gray(SmartBuffer& b, int32_t x, int32_t y, int v) {
  if (x < 0 || y < 0 || x >= b.width || y >= b.height) return;
  std::memset(RowPtr(b, y) + 4 * x, std::max(0, std::min(255, v)), 3);
}

// A night scene on a 640 x 400 detection copy: a noisy, textured ground
// with small sheen spots, a lit lattice (lines at three quarters of full
// light), and lamps (bright cores with a soft glow).
struct NightScene {
  SmartBuffer img;
  std::vector<std::pair<int32_t, int32_t>> lamps = {{80, 60}, {300, 90}, {520, 330}, {150, 300}};

  NightScene() {
    CreateSmartBufferData(img, 640, 400, PIXEL_BGRA32);
    std::mt19937 rng(5);
    for (int32_t y = 0; y < 400; ++y)
      for (int32_t x = 0; x < 640; ++x) {
        RowPtr(img, y)[4 * x + 3] = 255;
        Gray(img, x, y, 60 + static_cast<int>(rng() % 50) + (x / 7 % 2) * 20);
      }
    for (int32_t i = 0; i < 60; ++i) {  // sheen on the texture
      const int32_t cx = 20 + static_cast<int32_t>(rng() % 600), cy = 20 + static_cast<int32_t>(rng() % 360);
      for (int32_t y = cy - 1; y <= cy + 1; ++y)
        for (int32_t x = cx - 1; x <= cx + 1; ++x) Gray(img, x, y, 150);
    }
    for (int32_t k = 0; k < 6; ++k)  // a lattice: verticals and diagonals
      for (int32_t t = 0; t < 300; ++t) {
        Gray(img, 400 + 30 * (k % 3), 40 + t, 190);
        Gray(img, 400 + t / 5 + 30 * (k % 3), 40 + t, 190);
      }
    for (auto [cx, cy] : lamps)
      for (int32_t y = cy - 10; y <= cy + 10; ++y)
        for (int32_t x = cx - 10; x <= cx + 10; ++x) {
          const double r = std::hypot(x - cx, y - cy);
          if (r <= 10) Gray(img, x, y, r <= 3 ? 255 : static_cast<int>(255 - 14 * (r - 3)));
        }
  }
};

TEST(LightHighlights, LampsAreKeptTextureAndLitLinesAreNot) {
  KorvaneTest::Runner run;
  NightScene scene;
  // The detector as sparkle runs it in its default mode: many points.
  LightPointSettings settings;
  settings.radius = 4;
  settings.threshold = 2.55f;
  SmartBuffer map;
  ASSERT_EQ(DetectLightPoints(run.adapter, KorvaneTest::Level(0), scene.img, settings, map), S_OK);
  LightPointList list;
  ASSERT_EQ(InitLightPointList(map, 90, 24, list), S_OK);
  ASSERT_EQ(MarkHighlights(scene.img, list), S_OK);
  int32_t marked = 0;
  std::vector<int32_t> per_lamp(scene.lamps.size(), 0);
  for (const auto& [key, p] : list) {
    if (!p.highlight) continue;
    ++marked;
    size_t lamp = scene.lamps.size();
    for (size_t i = 0; i < scene.lamps.size(); ++i)
      if (std::hypot(p.x - scene.lamps[i].first, p.y - scene.lamps[i].second) <= 11) lamp = i;
    EXPECT_LT(lamp, scene.lamps.size()) << "marked off the lamps at " << p.x << "," << p.y;
    if (lamp < scene.lamps.size()) ++per_lamp[lamp];
  }
  EXPECT_GT(static_cast<int32_t>(list.size()), 10 * marked);  // the detector answered to much more
  for (size_t i = 0; i < per_lamp.size(); ++i) EXPECT_GE(per_lamp[i], 1) << "lamp " << i;

  // A point off the copy, and a copy that is no BGRA image, are refused.
  LightPointList off;
  off[0].x = 640;
  EXPECT_EQ(MarkHighlights(scene.img, off), E_INVALIDARG);
  SmartBuffer gray;
  CreateSmartBufferData(gray, 4, 4, PIXEL_GRAY8);
  EXPECT_EQ(MarkHighlights(gray, list), E_NOTIMPL);
}

// The lightness where the brightest share begins, ties included, and the
// near-white share.
TEST(LightHighlights, LightnessMeasures) {
  int64_t hist[256] = {};
  EXPECT_EQ(LightnessOfBrightest(hist, 0.05), 0);  // empty
  hist[10] = 90;
  hist[200] = 8;
  hist[250] = 2;
  EXPECT_EQ(LightnessOfBrightest(hist, 0.02), 250);
  EXPECT_EQ(LightnessOfBrightest(hist, 0.05), 200);  // 10 % at 200 or above
  EXPECT_EQ(LightnessOfBrightest(hist, 0.5), 10);
  hist[255] = 40;  // ties: a fifth of the picture is white
  EXPECT_EQ(LightnessOfBrightest(hist, 0.03), 255);

  SmartBuffer img;
  CreateSmartBufferData(img, 10, 10, PIXEL_BGRA32);
  FillMap(img, 250);
  std::memcpy(RowPtr(img, 3) + 8, "\xff\xf0\x20\xff", 4);  // one orange pixel: not white
  EXPECT_DOUBLE_EQ(NearWhiteShare(MapView(img, FullRect(img)), 245), 0.99);
  const LightnessPlane plane(img);
  EXPECT_EQ(plane.At(2, 3), (255 + 32) / 2);
  EXPECT_NEAR(plane.BoxMean(0, 0, 1), 250.0, 1e-9);  // cut to the picture: 2 x 2 pixels
}

}  // namespace
}  // namespace Korvane
