#include <gtest/gtest.h>

#include <cmath>

#include "core/ColorSpace.h"

using namespace Korvane;

TEST(ColorSpace, PrimariesAndGraysLandOnTheirHues) {
  struct Case { int r, g, b, h, s, v; };
  const Case cases[] = {
      {255, 0, 0, 0, kHsvMax, kHsvMax},       {255, 255, 0, 6000, kHsvMax, kHsvMax},
      {0, 255, 0, 12000, kHsvMax, kHsvMax},   {0, 255, 255, 18000, kHsvMax, kHsvMax},
      {0, 0, 255, 24000, kHsvMax, kHsvMax},   {255, 0, 255, 30000, kHsvMax, kHsvMax},
      {128, 128, 128, 0, 0, 128 * 128},       {0, 0, 0, 0, 0, 0},
      {255, 0, 1, 35976, kHsvMax, kHsvMax},   // just below a full turn, never 36000
  };
  for (const Case& c : cases) {
    int32_t h, s, v;
    RgbToHsv(c.r, c.g, c.b, h, s, v);
    EXPECT_EQ(h, c.h) << c.r << "," << c.g << "," << c.b;
    EXPECT_EQ(s, c.s) << c.r << "," << c.g << "," << c.b;
    EXPECT_EQ(v, c.v) << c.r << "," << c.g << "," << c.b;
  }
}

// The adjustments rely on this: a colour whose saturation is not changed
// comes back unchanged, for every one of the 2^24 colours.
TEST(ColorSpace, IntegerRoundTripIsExactForEveryColour) {
  int failures = 0;
  for (int r = 0; r < 256; ++r)
    for (int g = 0; g < 256; ++g)
      for (int b = 0; b < 256; ++b) {
        int32_t h, s, v, r2, g2, b2;
        RgbToHsv(r, g, b, h, s, v);
        ASSERT_TRUE(h >= 0 && h < kHueFull && s >= 0 && s <= kHsvMax && v >= 0 && v <= kHsvMax);
        HsvToRgb(h, s, v, r2, g2, b2);
        if ((r2 != r || g2 != g || b2 != b) && ++failures < 5) {
          ADD_FAILURE() << r << "," << g << "," << b << " -> " << r2 << "," << g2 << "," << b2;
        }
      }
  EXPECT_EQ(failures, 0);
}

TEST(ColorSpace, HsvToRgbWrapsHueAndClampsItsInputs) {
  int32_t r, g, b, r2, g2, b2;
  HsvToRgb(12000, kHsvMax, kHsvMax, r, g, b);
  for (int32_t h : {12000 + 2 * kHueFull, 12000 - kHueFull}) {
    HsvToRgb(h, kHsvMax, kHsvMax, r2, g2, b2);
    EXPECT_TRUE(r2 == r && g2 == g && b2 == b) << h;
  }
  HsvToRgb(12000, 5 * kHsvMax, 3 * kHsvMax, r, g, b);  // clamped: pure green at full value
  EXPECT_TRUE(r == 0 && g == 255 && b == 0);
  HsvToRgb(0, -100, -100, r, g, b);
  EXPECT_EQ(r + g + b, 0);
}

TEST(ColorSpace, NegativeChannelsGiveOverFullSaturation) {
  // What a strong tint produces: the hue of the dominant channels, a
  // saturation above full that HsvToRgb then clamps.
  int32_t h, s, v, r, g, b;
  RgbToHsv(200, -50, 100, h, s, v);
  EXPECT_GT(s, kHsvMax);
  EXPECT_EQ(v, 200 * 128);
  EXPECT_GT(h, 30000);  // between magenta and red
  HsvToRgb(h, s, v, r, g, b);
  EXPECT_EQ(r, 200); EXPECT_EQ(g, 0);
  EXPECT_GT(b, 0);
  RgbToHsv(-5, -10, -20, h, s, v);
  EXPECT_EQ(s, 0);
  HsvToRgb(h, s, v, r, g, b);
  EXPECT_EQ(r + g + b, 0);
}

TEST(ColorSpace, FloatFormsAgreeWithIntegerFormsAndRoundTrip) {
  for (int r = 0; r < 256; r += 5)
    for (int g = 0; g < 256; g += 7)
      for (int b = 0; b < 256; b += 3) {
        float hf, sf, vf, r2, g2, b2;
        RgbToHsvF(r / 255.0f, g / 255.0f, b / 255.0f, hf, sf, vf);
        int32_t h, s, v;
        RgbToHsv(r, g, b, h, s, v);
        ASSERT_GE(hf, 0.0f);
        ASSERT_LT(hf, 36000.0f);
        if (s > 0) {
          EXPECT_NEAR(hf, h, 0.6f);
        }
        EXPECT_NEAR(sf * kHsvMax, s, 0.6f);
        EXPECT_NEAR(vf * kHsvMax, v, 0.01f);
        HsvToRgbF(hf, sf, vf, r2, g2, b2);
        EXPECT_NEAR(r2 * 255.0f, r, 1e-3f);
        EXPECT_NEAR(g2 * 255.0f, g, 1e-3f);
        EXPECT_NEAR(b2 * 255.0f, b, 1e-3f);
      }
}
