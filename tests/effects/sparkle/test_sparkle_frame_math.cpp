#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "SparkleTestSupport.h"
#include "core/SmartBuffer.h"
#include "core/LightPointDetect.h"
#include "effects/sparkle/SparkleAnime.h"
#include "effects/sparkle/SparkleColor.h"
#include "effects/sparkle/SparkleShapes.h"

using namespace Korvane;
using namespace SparkleTest;

namespace {

// Modes 0 and 2 keep the full size; the others scale as the light map does.
TEST(SparkleAnime, ScaleRatioKeepsFullSizeInModesZeroAndTwo) {
  for (int mode : {0, 1, 2, 3, 7}) {
    float r = 0, want = 0;
    ASSERT_EQ(CalSparkleScaleRatio(mode, 4000, r), S_OK);
    ASSERT_EQ(CalLightMapScaleRatio(4000, want), S_OK);
    EXPECT_EQ(r, mode == 0 || mode == 2 ? 1.0f : want) << mode;
  }
}

TEST(SparkleAnime, RotationAdvancesOneTurnPerLoopAndWrapsOnce) {
  float r = 0;
  ASSERT_EQ(CalRotation(350.0f, true, 12, 1, r), S_OK);  // + 30
  EXPECT_FLOAT_EQ(r, 20.0f);
  ASSERT_EQ(CalRotation(350.0f, false, 12, 1, r), S_OK);
  EXPECT_EQ(r, 350.0f);
  EXPECT_EQ(CalRotation(0.0f, true, 0, 0, r), E_INVALIDARG);
}

SmartBuffer Buffer(const Bytes& bytes, int32_t w, int32_t h) {
  SmartBuffer b;
  EXPECT_EQ(CreateSmartBufferData(b, w, h, PIXEL_BGRA32), S_OK);
  std::copy(bytes.begin(), bytes.end(), b.data.get());
  return b;
}

Bytes Pixels(const SmartBuffer& b) { return Bytes(b.data.get(), b.data.get() + size_t(b.stride) * b.height); }

// A variant of the level's own size samples its pixels exactly at whole
// quarter turns.
TEST(SparkleShapes, WholeTurnsCopyAndQuarterTurnsMovePixelsExactly) {
  KorvaneTest::Runner run(2);
  const int32_t n = 9;
  const Bytes noise = KorvaneTest::RandomBytes(size_t(n) * n * 4, 5);
  const SmartBuffer src = Buffer(noise, n, n);
  LightShape v;
  v.d = n;
  auto turn = [&](float deg) {
    VariantJob job{&src, &v};
    EXPECT_TRUE(TurnOf(deg, job.cos_a, job.sin_a));
    std::vector<VariantJob> jobs{job};
    EXPECT_EQ(SampleSparkleVariants(run.adapter, KorvaneTest::Level(SIMD_SSE41), jobs), S_OK);
    return Pixels(v.shape);
  };
  for (float deg : {0.0f, 360.0f, -720.0f}) EXPECT_EQ(turn(deg), noise) << deg;
  // Clockwise on screen: the top-left corner goes to the top-right.
  const Bytes q = turn(90.0f);
  for (int32_t y = 0; y < n; ++y)
    for (int32_t x = 0; x < n; ++x)
      for (int32_t c = 0; c < 4; ++c)
        ASSERT_EQ(q[(size_t(y) * n + x) * 4 + c], noise[(size_t(n - 1 - x) * n + y) * 4 + c]) << x << "," << y;
  // Half a quarter: the corners come from outside and are black.
  EXPECT_EQ(turn(45.0f)[0], 0);
  float c, s;
  EXPECT_FALSE(TurnOf(NAN, c, s));
  EXPECT_TRUE(TurnOf(-90.0f, c, s));
  EXPECT_EQ(s, -1.0f);
}

TEST(SparkleShapes, PyramidHalvesByMeansAndVariantsAreOdd) {
  KorvaneTest::Runner run(2);
  const SmartBuffer star = Buffer(StarShape(), SPK_SIZE, SPK_SIZE);
  ShapePyramid pyr;
  ASSERT_EQ(pyr.Build(star), S_OK);
  ASSERT_EQ(pyr.count, 7);  // 200, 100, 50, 25, 12, 6, 3
  EXPECT_EQ(pyr.levels[3].width, 25);
  const uint8_t* a = pyr.levels[0].data.get();
  const int32_t s = pyr.levels[0].stride;
  EXPECT_EQ(pyr.levels[1].data[(10 * 100 + 20) * 4 + 1],
            (a[20 * s + 40 * 4 + 1] + a[20 * s + 41 * 4 + 1] + a[21 * s + 40 * 4 + 1] + a[21 * s + 41 * 4 + 1] + 2) / 4);
  EXPECT_EQ(pyr.LevelFor(60).width, 100);
  EXPECT_EQ(pyr.LevelFor(50).width, 50);
  EXPECT_EQ(pyr.LevelFor(900).width, 200);
  for (float len : {0.0f, 3.9f, 19.2f, 20.0f})
    EXPECT_EQ(OddShapeSize(len) % 2, 1) << len;
  EXPECT_EQ(OddShapeSize(20.0f), 21);
  // Several variants in one run, each from the level that suits its size.
  LightShape v, big;
  v.d = 21;
  big.d = 301;
  std::vector<VariantJob> jobs{{&pyr.LevelFor(21), &v}, {&pyr.LevelFor(301), &big}};
  ASSERT_EQ(SampleSparkleVariants(run.adapter, KorvaneTest::Level(0), jobs), S_OK);
  EXPECT_EQ(v.shape.width, 21);
  EXPECT_EQ(big.shape.height, 301);
  EXPECT_EQ(big.shape.data[(150 * 301 + 150) * 4], 255);
  // A thin spike survives the reduction: the centre column stays lit to the tip's half.
  EXPECT_GT(v.shape.data[(5 * 21 + 10) * 4], 20);
  EXPECT_LT(v.shape.data[(5 * 21 + 4) * 4], v.shape.data[(5 * 21 + 10) * 4] / 2);
}

// Every SIMD form of the sampler against the plain one: noisy levels with
// black runs, and a mostly black level (a cross on black, as a star is),
// at sizes around the eight-pixel groups and angles that walk past every
// edge.
TEST(SparkleShapes, SimdSamplersMatchPlainOnAwkwardSizes) {
  uint32_t seed = 40;
  for (int32_t n : {1, 2, 3, 7, 9, 33, 64}) {
    Bytes level = KorvaneTest::RandomBytes(size_t(n) * n * 4, seed++);
    for (size_t i = 0; i < level.size(); i += 12) std::fill_n(level.begin() + i, std::min<size_t>(8, level.size() - i), 0);
    if (n == 64) {
      for (int32_t y = 0; y < n; ++y)
        for (int32_t x = 0; x < n; ++x)
          if (std::abs(x - 31) > 1 && std::abs(y - 30) > 2) std::fill_n(level.begin() + (size_t(y) * n + x) * 4, 4, 0);
    }
    const SmartBuffer src = Buffer(level, n, n);
    for (int32_t d : {1, 2, 3, 5, 17, 40, 53})
      for (float deg : {0.0f, 33.0f, 90.0f, 211.7f}) {
        VariantJob job{&src, nullptr};
        ASSERT_TRUE(TurnOf(deg, job.cos_a, job.sin_a));
        KorvaneTest::ExpectFormsMatchPlain(
            [&](const KorvaneTest::Form& form) {
              const auto row =
                  KORVANE_PICK_AVX2(form.info, SampleVariantRow, SampleVariantRow_SSE, SampleVariantRow_AVX2);
              LightShape v;
              v.d = d;
              EXPECT_EQ(CreateSmartBufferData(v.shape, d, d, PIXEL_BGRA32), S_OK);
              job.variant = &v;
              for (int32_t y = 0; y < d; ++y) row.fn(job, y);
              return Pixels(v.shape);
            },
            std::to_string(n) + " -> " + std::to_string(d) + " at " + std::to_string(deg), d);
      }
  }
}

TEST(SparkleColor, AdjustChangesSaturationAndBrightnessOfLitPixelsOnly) {
  const Bytes px = {0, 0, 0, 9, 200, 100, 50, 255, 90, 90, 90, 255};
  auto run = [&](float sat, float bright, Rect region) {
    SmartBuffer b = Buffer(px, 3, 1);
    SparkleAdjustParam p{b, region, 1.0f, sat, bright};
    EXPECT_EQ(AdjustSparkleColor(p, Rect{0, 0, 3, 1}), S_OK);
    return Pixels(b);
  };
  EXPECT_TRUE(SparkleAdjustIsIdentity(SparkleAdjustParam{SmartBuffer(), Rect{}, 1.0f, 0.0f, 0.0f}));
  EXPECT_EQ(run(0.0f, 0.0f, Rect{0, 0, 3, 1}), px);
  const Bytes grey = run(-1.0f, 0.0f, Rect{0, 0, 3, 1});
  EXPECT_EQ(grey[0], 0);
  EXPECT_EQ(grey[3], 9);  // dark pixel and alpha untouched
  EXPECT_EQ(grey[4], grey[5]);
  EXPECT_EQ(grey[5], grey[6]);
  EXPECT_EQ(grey[8], 90);  // a grey stays grey
  const Bytes vivid = run(1.0f, 0.0f, Rect{0, 0, 3, 1});
  EXPECT_GT(vivid[4] - vivid[6], 150 - 0);
  const Bytes bright = run(0.0f, 1.0f, Rect{0, 0, 3, 1});
  EXPECT_EQ(bright[4], 255);  // 400 clamped
  EXPECT_EQ(bright[5], 200);
  EXPECT_EQ(bright[8], 180);
  const Bytes dark = run(0.0f, -1.0f, Rect{0, 0, 3, 1});
  EXPECT_EQ(dark[4], 0);
  // Only the region's columns change.
  const Bytes part = run(0.0f, 1.0f, Rect{2, 0, 3, 1});
  EXPECT_EQ(part[4], 200);
  EXPECT_EQ(part[8], 180);
}

// The AVX2 adjustment against the plain one: random light with dark runs,
// settings at and past their ends, rows cut at odd columns.
TEST(SparkleColor, AdjustOfEveryFormAgrees) {
  const int32_t w = 45, h = 64;
  Bytes px = KorvaneTest::RandomBytes(size_t(w) * h * 4, 77);
  for (size_t i = 0; i < px.size(); i += 36) std::fill_n(px.begin() + i, std::min<size_t>(20, px.size() - i), 0);
  for (auto [sat, bright] : {std::pair<float, float>{-1.0f, 0.0f}, {1.0f, 1.0f}, {0.3f, -0.7f}, {-0.4f, 0.25f}, {3.0f, 2.0f}}) {
    KorvaneTest::ExpectFormsMatchPlain(
        [&, sat = sat, bright = bright](const KorvaneTest::Form& form) {
          const auto adjust = ChooseKernel<int32_t (*)(const SparkleAdjustParam&, const Rect&)>(
              form.info, &AdjustSparkleColor, "AdjustSparkleColor", nullptr, "", KORVANE_AVX2(AdjustSparkleColor_AVX2),
              "AdjustSparkleColor_AVX2");
          SmartBuffer b = Buffer(px, w, h);
          EXPECT_EQ(adjust.fn(SparkleAdjustParam{b, Rect{3, 0, w - 1, h}, 1.0f, sat, bright}, Rect{0, 0, w, h}), S_OK);
          return Pixels(b);
        },
        "saturation " + std::to_string(sat) + ", brightness " + std::to_string(bright), w);
  }
}

TEST(SparkleColor, GlintColoursFollowThePhotoOrTheHueTable) {
  const uint8_t white[3] = {250, 250, 250}, orange[3] = {40, 120, 200};
  const LightColor w = SparklePhotoColor(white), o = SparklePhotoColor(orange);
  EXPECT_EQ(w.r, 255);
  EXPECT_EQ(w.b, 255);
  EXPECT_EQ(o.r, 255);  // full value, the photo's hue
  EXPECT_GT(o.g, o.b);
  EXPECT_LT(o.b, 40);   // saturation doubled
  const LightColor red = SparkleRandomColor(0), blue = SparkleRandomColor(16);
  EXPECT_EQ(red.r, 255);
  EXPECT_EQ(red.g, red.b);
  EXPECT_EQ(blue.b, 255);
  EXPECT_LT(blue.r, 100);
}

}  // namespace
