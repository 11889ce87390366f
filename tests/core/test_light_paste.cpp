// Light pastes and the light-map add: clipping at the map's edges,
// saturating accumulation, the sub-pixel placement, and the SSE4.1 forms
// against the plain ones on awkward sizes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "TestSupport.h"
#include "core/HslColor.h"
#include "core/ImageChecks.h"
#include "core/LightPaste.h"
#include "core/LightPasteDetail.h"
#include "core/Simd.h"
#include "core/SmartBuffer.h"

namespace Korvane {
namespace {

SmartBuffer Bgra(int32_t w, int32_t h, uint8_t fill = 0) {
  SmartBuffer b;
  CreateSmartBufferData(b, w, h, PIXEL_BGRA32);
  std::memset(b.data.get(), fill, static_cast<size_t>(b.stride) * h);
  return b;
}

SmartBuffer Noise(int32_t w, int32_t h, uint32_t seed) {
  SmartBuffer b = Bgra(w, h);
  KorvaneTest::FillNoise(b.data.get(), static_cast<size_t>(b.stride) * h, seed);
  return b;
}

std::vector<uint8_t> Bytes(const SmartBuffer& b) {
  return std::vector<uint8_t>(b.data.get(), b.data.get() + static_cast<size_t>(b.stride) * b.height);
}

const uint8_t* Px(const SmartBuffer& b, int32_t x, int32_t y) { return RowPtr<const uint8_t>(b, y) + 4 * x; }

// A white square shape: every pixel has intensity trunc(765 x 0.333) = 254.
SmartBuffer White(int32_t d) { return Bgra(d, d, 255); }

LightPasteArgs Args(float lightness, int32_t b, int32_t g, int32_t r, int32_t mode = LIGHT_PASTE_INTENSITY) {
  LightPasteArgs a;
  a.lightness = lightness;
  a.color = LightColor{b, g, r};
  a.mode = mode;
  return a;
}

TEST(LightPaste, IntensityMatchesItsDefinition) {
  for (int32_t sum = 0; sum <= 765; ++sum) {
    ASSERT_EQ((sum * lightpaste_detail::kIntensityMul) >> 16, static_cast<int32_t>(sum * 0.333)) << sum;
  }
}

TEST(LightPaste, ShapeOnTheCornerIsClippedToItsQuarter) {
  Rect roi;
  ASSERT_EQ(CalPasteLightROI(roi, PointI{0, 0}, 5, 10, 10), S_OK);
  EXPECT_EQ(roi.left, 2);
  EXPECT_EQ(roi.top, 2);
  EXPECT_EQ(roi.right, 5);
  EXPECT_EQ(roi.bottom, 5);
  ASSERT_EQ(CalPasteLightROI(roi, PointI{9, 8}, 5, 10, 10), S_OK);  // bottom-right corner region
  EXPECT_EQ(roi.right, 3);
  EXPECT_EQ(roi.bottom, 4);
  ASSERT_EQ(CalPasteLightROI(roi, PointI{30, 4}, 5, 10, 10), S_OK);
  EXPECT_TRUE(IsEmpty(roi));
  EXPECT_EQ(CalPasteLightROI(roi, PointI{0, 0}, 0, 10, 10), E_INVALIDARG);

  for (int simd : {0, 1}) {
    SmartBuffer light = Bgra(10, 10);
    const SmartBuffer shape = White(5);
    ASSERT_EQ(CalPasteLightROI(roi, PointI{0, 0}, 5, 10, 10), S_OK);
    const auto paste = simd ? KORVANE_SSE41(PasteLight_SSE) : &PasteLight;
    if (!paste) continue;
    ASSERT_EQ(paste(shape, light, PointI{0, 0}, Args(1.0f, 255, 128, 0), roi), S_OK);
    for (int32_t y = 0; y < 10; ++y)
      for (int32_t x = 0; x < 10; ++x) {
        const bool lit = x < 3 && y < 3;
        EXPECT_EQ(Px(light, x, y)[0], lit ? (255 * 254) >> 8 : 0) << x << "," << y;
        EXPECT_EQ(Px(light, x, y)[1], lit ? (128 * 254) >> 8 : 0);
        EXPECT_EQ(Px(light, x, y)[2], 0);
        EXPECT_EQ(Px(light, x, y)[3], 0);  // alpha never touched
      }
    // A paste whose roi does not fit the map at that position is refused.
    EXPECT_EQ(paste(shape, light, PointI{0, 0}, Args(1.0f, 255, 128, 0), Rect{0, 0, 5, 5}), E_INVALIDARG);
  }
}

TEST(LightPaste, TwoPastesAddAndSaturate) {
  const auto paste = KORVANE_SSE41(PasteLight_SSE);
  for (auto fn : {&PasteLight, paste}) {
    if (!fn) continue;
    SmartBuffer light = Bgra(9, 9);
    const SmartBuffer shape = White(7);
    Rect roi;
    ASSERT_EQ(CalPasteLightROI(roi, PointI{4, 4}, 7, 9, 9), S_OK);
    const LightPasteArgs a = Args(0.6f, 200, 100, 10);  // c = 120, 60, 6
    ASSERT_EQ(fn(shape, light, PointI{4, 4}, a, roi), S_OK);
    ASSERT_EQ(fn(shape, light, PointI{4, 4}, a, roi), S_OK);
    EXPECT_EQ(Px(light, 4, 4)[0], std::min(255, 2 * ((120 * 254) >> 8)));
    EXPECT_EQ(Px(light, 4, 4)[1], 2 * ((60 * 254) >> 8));
    EXPECT_EQ(Px(light, 4, 4)[2], 2 * ((6 * 254) >> 8));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(fn(shape, light, PointI{4, 4}, a, roi), S_OK);
    EXPECT_EQ(Px(light, 4, 4)[0], 255);  // saturated, not wrapped
    EXPECT_EQ(Px(light, 1, 1)[1], 255);
    EXPECT_EQ(Px(light, 1, 1)[2], 5 * ((6 * 254) >> 8));
    EXPECT_EQ(Px(light, 0, 0)[0], 0);  // outside the 7 x 7 shape
  }
}

TEST(LightPaste, SubPixelPasteAtWholePixelsIsTheIntegerPaste) {
  const SmartBuffer shape = Noise(9, 9, 5);
  SmartBuffer tmp = Bgra(10, 10);
  for (PointI p : {PointI{10, 7}, PointI{1, 1}, PointI{18, 13}}) {
    SmartBuffer a = Bgra(20, 14), b = Bgra(20, 14);
    Rect ri, rb;
    PointI origin;
    ASSERT_EQ(CalPasteLightROI(ri, p, 9, 14, 20), S_OK);
    ASSERT_EQ(CalBilinearPasteLightROI(rb, origin, PointF{float(p.x), float(p.y)}, 9, 14, 20), S_OK);
    ASSERT_EQ(PasteLight(shape, a, p, Args(0.8f, 255, 255, 255, LIGHT_PASTE_CHANNELS), ri), S_OK);
    ASSERT_EQ(BilinearPasteLight(shape, tmp, b, PointF{float(p.x), float(p.y)},
                                 Args(0.8f, 255, 255, 255, LIGHT_PASTE_CHANNELS), rb),
              S_OK);
    EXPECT_EQ(Bytes(a), Bytes(b)) << KorvaneTest::FirstDifference(Bytes(a), Bytes(b), 20);
  }
}

// The light centroid follows the position continuously: no jump as the
// fraction wraps from one pixel to the next.
TEST(LightPaste, SubPixelPasteMovesSmoothly) {
  // A soft disc.
  const int32_t d = 11;
  SmartBuffer disc = Bgra(d, d);
  for (int32_t y = 0; y < d; ++y)
    for (int32_t x = 0; x < d; ++x) {
      const float r = std::hypot(x - 5.0f, y - 5.0f);
      std::memset(RowPtr(disc, y) + 4 * x, static_cast<int>(std::max(0.0f, 1.0f - r / 5.5f) * 200), 3);
    }
  SmartBuffer tmp = Bgra(d + 1, d + 1);
  for (int step = 0; step <= 24; ++step) {
    const float px = 15.0f + step / 8.0f, py = 12.0f - step / 16.0f;
    SmartBuffer light = Bgra(32, 24);
    Rect roi;
    PointI origin;
    ASSERT_EQ(CalBilinearPasteLightROI(roi, origin, PointF{px, py}, d, 24, 32), S_OK);
    ASSERT_EQ(BilinearPasteLight(disc, tmp, light, PointF{px, py}, Args(1.0f, 255, 255, 255), roi), S_OK);
    double sum = 0, sx = 0, sy = 0;
    for (int32_t y = 0; y < 24; ++y)
      for (int32_t x = 0; x < 32; ++x) {
        const double v = Px(light, x, y)[1];
        sum += v;
        sx += v * x;
        sy += v * y;
      }
    EXPECT_NEAR(sx / sum, px, 0.03) << step;
    EXPECT_NEAR(sy / sum, py, 0.03) << step;
  }
}

TEST(LightPaste, SseFormsMatchPlainOnAwkwardSizes) {
  if (!KORVANE_HAVE_SSE41) GTEST_SKIP() << "built without SSE4.1";
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int32_t d : {1, 2, 3, 4, 7, 8, 13, 33}) {
    for (int32_t w : {1, 3, 5, 17, 40}) {
      const int32_t h = 1 + static_cast<int32_t>(rng() % 23);
      const SmartBuffer shape = Noise(d, d, rng());
      const SmartBuffer base = Noise(w, h, rng());
      for (int mode : {LIGHT_PASTE_INTENSITY, LIGHT_PASTE_CHANNELS}) {
        const LightPasteArgs args = Args(unit(rng), rng() % 256, rng() % 256, rng() % 256, mode);
        const PointF pt{unit(rng) * (w + 4) - 2, unit(rng) * (h + 4) - 2};
        const PointI pi{static_cast<int32_t>(pt.x + 0.5f), static_cast<int32_t>(pt.y + 0.5f)};
        SmartBuffer a = base, b = Bgra(w, h);
        std::memcpy(b.data.get(), base.data.get(), static_cast<size_t>(b.stride) * h);
        a = Bgra(w, h);
        std::memcpy(a.data.get(), base.data.get(), static_cast<size_t>(a.stride) * h);
        Rect roi;
        ASSERT_EQ(CalPasteLightROI(roi, pi, d, h, w), S_OK);
        ASSERT_EQ(PasteLight(shape, a, pi, args, roi), S_OK);
        ASSERT_EQ(PasteLight_SSE(shape, b, pi, args, roi), S_OK);
        ASSERT_EQ(Bytes(a), Bytes(b)) << "integer d " << d << " w " << w << " mode " << mode;
        PointI origin;
        SmartBuffer ta = Bgra(d + 1, d + 1), tb = Bgra(d + 1, d + 1);
        ASSERT_EQ(CalBilinearPasteLightROI(roi, origin, pt, d, h, w), S_OK);
        ASSERT_EQ(BilinearPasteLight(shape, ta, a, pt, args, roi), S_OK);
        ASSERT_EQ(BilinearPasteLight_SSE(shape, tb, b, pt, args, roi), S_OK);
        ASSERT_EQ(Bytes(a), Bytes(b)) << "sub-pixel d " << d << " w " << w << " mode " << mode << " at " << pt.x << ","
                                      << pt.y;
      }
      // The light-map add over an inner roi, into a padded caller image.
      const SmartBuffer light = Noise(w, h, rng());
      const Rect roi{w / 3, h / 4, w, h};
      KorvaneTest::TestImage out_a(RectWidth(roi), RectHeight(roi), PIXEL_BGRA32, 3),
          out_b(RectWidth(roi), RectHeight(roi), PIXEL_BGRA32, 3);
      LightMapAddParam pa{base, light, out_a.buf, roi}, pb{base, light, out_b.buf, roi};
      ASSERT_EQ(ImageAddLightMap(pa, roi), S_OK);
      ASSERT_EQ(ImageAddLightMap_SSE(pb, roi), S_OK);
      EXPECT_EQ(out_a.Packed(), out_b.Packed()) << "add w " << w;
      EXPECT_TRUE(out_b.GuardsIntact());
      const uint8_t* o = out_a.buf.data;
      const uint8_t* bp = Px(base, roi.left, roi.top);
      const uint8_t* lp = Px(light, roi.left, roi.top);
      for (int k = 0; k < 3; ++k) EXPECT_EQ(o[k], std::min(255, bp[k] + lp[k]));
      EXPECT_EQ(o[3], bp[3]);
    }
  }
}

TEST(LightPaste, RefusesWhatDoesNotFit) {
  SmartBuffer light = Bgra(8, 8), shape = White(3), tmp = Bgra(3, 3);
  Rect roi{0, 0, 3, 3};
  EXPECT_EQ(PasteLight(SmartBuffer(), light, PointI{4, 4}, Args(1, 1, 1, 1), roi), E_POINTER);
  SmartBuffer gray;
  CreateSmartBufferData(gray, 3, 3, PIXEL_GRAY8);
  EXPECT_EQ(PasteLight(gray, light, PointI{4, 4}, Args(1, 1, 1, 1), roi), E_NOTIMPL);
  EXPECT_EQ(PasteLight(Bgra(3, 4), light, PointI{4, 4}, Args(1, 1, 1, 1), roi), E_INVALIDARG);
  EXPECT_EQ(BilinearPasteLight(shape, tmp, light, PointF{4, 4}, Args(1, 1, 1, 1), roi), E_INVALIDARG);  // tmp small
  PointI origin;
  EXPECT_EQ(CalBilinearPasteLightROI(roi, origin, PointF{NAN, 1}, 3, 8, 8), E_INVALIDARG);
  LightMapAddParam p{light, Bgra(7, 8), ImageBuffer(), Rect{0, 0, 8, 8}};
  EXPECT_EQ(ImageAddLightMap(p, p.roi), E_POINTER);
}

TEST(HslColor, RoundTripsAndNamesGreys) {
  int32_t h, s, l, r, g, b;
  RgbToHsl(255, 0, 0, h, s, l);
  EXPECT_EQ(h, 0);
  EXPECT_EQ(s, kHslMax);
  EXPECT_EQ(l, 16320);
  RgbToHsl(40, 40, 40, h, s, l);
  EXPECT_EQ(s, 0);
  EXPECT_EQ(l, 40 * 128);
  std::mt19937 rng(2);
  for (int i = 0; i < 2000; ++i) {
    const int32_t r0 = rng() % 256, g0 = rng() % 256, b0 = rng() % 256;
    RgbToHsl(r0, g0, b0, h, s, l);
    ASSERT_GE(h, 0);
    ASSERT_LT(h, 36000);
    HslToRgb(h, s, l, r, g, b);
    ASSERT_NEAR(r, r0, 1);
    ASSERT_NEAR(g, g0, 1);
    ASSERT_NEAR(b, b0, 1);
  }
  HslToRgb(-1, kHslMax, 22848, r, g, b);  // no hue: grey at the lightness
  EXPECT_EQ(r, 179);
  EXPECT_EQ(g, 179);
  EXPECT_EQ(b, 179);
  HslToRgb(12000 + 36000, kHslMax, 16320, r, g, b);  // a full turn more is the same hue
  EXPECT_EQ(g, 255);
}

}  // namespace
}  // namespace Korvane
