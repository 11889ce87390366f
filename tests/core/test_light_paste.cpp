// The light map: its sizes and the loop arithmetic, the pastes (clipping at
// the map's edges, saturating accumulation, the sub-pixel placement) and the
// light-map add, the SIMD forms against the plain ones on awkward sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "TestSupport.h"
#include "core/HslColor.h"
#include "core/ImageChecks.h"
#include "core/LightMap.h"
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
std::tuple<int32_t, int32_t, int32_t, int32_t> Edges(const Rect& r) { return {r.left, r.top, r.right, r.bottom}; }

// A shape with its sub-pixel working image.
LightShape Shape(const SmartBuffer& pixels) {
  LightShape s;
  s.d = pixels.width;
  s.shape = pixels;
  s.tmp = Bgra(s.d + 1, s.d + 1);
  return s;
}

// A white square shape: every pixel has intensity trunc(765 x 0.333) = 254.
LightShape White(int32_t d) { return Shape(Bgra(d, d, 255)); }

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
  EXPECT_EQ(Edges(roi), std::make_tuple(2, 2, 5, 5));
  ASSERT_EQ(CalPasteLightROI(roi, PointI{9, 8}, 5, 10, 10), S_OK);  // bottom-right corner region
  EXPECT_EQ(std::make_pair(roi.right, roi.bottom), std::make_pair(3, 4));
  ASSERT_EQ(CalPasteLightROI(roi, PointI{30, 4}, 5, 10, 10), S_OK);
  EXPECT_TRUE(IsEmpty(roi));
  EXPECT_EQ(CalPasteLightROI(roi, PointI{0, 0}, 0, 10, 10), E_INVALIDARG);

  // The plain paste's values; the SIMD forms are compared with it below.
  SmartBuffer light = Bgra(10, 10);
  const LightShape shape = White(5);
  ASSERT_EQ(CalPasteLightROI(roi, PointI{0, 0}, 5, 10, 10), S_OK);
  ASSERT_EQ(PasteLight(shape, light, PointI{0, 0}, Args(1.0f, 255, 128, 0), roi), S_OK);
  for (int32_t y = 0; y < 10; ++y)
    for (int32_t x = 0; x < 10; ++x) {
      const bool lit = x < 3 && y < 3;
      EXPECT_EQ(Px(light, x, y)[0], lit ? (255 * 254) >> 8 : 0) << x << "," << y;
      EXPECT_EQ(Px(light, x, y)[1], lit ? (128 * 254) >> 8 : 0);
      EXPECT_EQ(Px(light, x, y)[2], 0);
      EXPECT_EQ(Px(light, x, y)[3], 0);  // alpha never touched
    }
  // A paste whose roi does not fit the map at that position is refused, by every form.
  for (const KorvaneTest::Form& form : KorvaneTest::Forms())
    EXPECT_EQ(KORVANE_PICK_AVX2(form.info, PasteLight, PasteLight_SSE, PasteLight_AVX2)
                  .fn(shape, light, PointI{0, 0}, Args(1.0f, 255, 128, 0), Rect{0, 0, 5, 5}),
              E_INVALIDARG);
}

TEST(LightPaste, TwoPastesAddAndSaturate) {
  SmartBuffer light = Bgra(9, 9);
  const LightShape shape = White(7);
  Rect roi;
  ASSERT_EQ(CalPasteLightROI(roi, PointI{4, 4}, 7, 9, 9), S_OK);
  const LightPasteArgs a = Args(0.6f, 200, 100, 10);  // c = 120, 60, 6
  ASSERT_EQ(PasteLight(shape, light, PointI{4, 4}, a, roi), S_OK);
  ASSERT_EQ(PasteLight(shape, light, PointI{4, 4}, a, roi), S_OK);
  EXPECT_EQ(Px(light, 4, 4)[0], std::min(255, 2 * ((120 * 254) >> 8)));
  EXPECT_EQ(Px(light, 4, 4)[1], 2 * ((60 * 254) >> 8));
  EXPECT_EQ(Px(light, 4, 4)[2], 2 * ((6 * 254) >> 8));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(PasteLight(shape, light, PointI{4, 4}, a, roi), S_OK);
  EXPECT_EQ(Px(light, 4, 4)[0], 255);  // saturated, not wrapped
  EXPECT_EQ(Px(light, 1, 1)[1], 255);
  EXPECT_EQ(Px(light, 1, 1)[2], 5 * ((6 * 254) >> 8));
  EXPECT_EQ(Px(light, 0, 0)[0], 0);  // outside the 7 x 7 shape
}

TEST(LightPaste, SubPixelPasteAtWholePixelsIsTheIntegerPaste) {
  LightShape shape = Shape(Noise(9, 9, 5));
  for (PointI p : {PointI{10, 7}, PointI{1, 1}, PointI{18, 13}}) {
    SmartBuffer a = Bgra(20, 14), b = Bgra(20, 14);
    Rect ri, rb;
    PointI origin;
    ASSERT_EQ(CalPasteLightROI(ri, p, 9, 14, 20), S_OK);
    ASSERT_EQ(CalBilinearPasteLightROI(rb, origin, PointF{float(p.x), float(p.y)}, 9, 14, 20), S_OK);
    ASSERT_EQ(PasteLight(shape, a, p, Args(0.8f, 255, 255, 255, LIGHT_PASTE_CHANNELS), ri), S_OK);
    ASSERT_EQ(BilinearPasteLight(shape, b, PointF{float(p.x), float(p.y)},
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
  LightShape disc = Shape(Bgra(d, d));
  for (int32_t y = 0; y < d; ++y)
    for (int32_t x = 0; x < d; ++x) {
      const float r = std::hypot(x - 5.0f, y - 5.0f);
      std::memset(RowPtr(disc.shape, y) + 4 * x, static_cast<int>(std::max(0.0f, 1.0f - r / 5.5f) * 200), 3);
    }
  for (int step = 0; step <= 24; ++step) {
    const float px = 15.0f + step / 8.0f, py = 12.0f - step / 16.0f;
    SmartBuffer light = Bgra(32, 24);
    Rect roi;
    PointI origin;
    ASSERT_EQ(CalBilinearPasteLightROI(roi, origin, PointF{px, py}, d, 24, 32), S_OK);
    ASSERT_EQ(BilinearPasteLight(disc, light, PointF{px, py}, Args(1.0f, 255, 255, 255), roi), S_OK);
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

// Every SIMD form against the plain one: shapes and maps of widths around
// the four- and eight-pixel steps, both paste modes and placements, and the
// add (as it is and through a table) into a padded caller image.
TEST(LightPaste, SimdFormsMatchPlainOnAwkwardSizes) {
  for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
    const SystemInfo& info = form.info;
    const auto paste = KORVANE_PICK_AVX2(info, PasteLight, PasteLight_SSE, PasteLight_AVX2);
    const auto bilinear = KORVANE_PICK_AVX2(info, BilinearPasteLight, BilinearPasteLight_SSE, BilinearPasteLight_AVX2);
    const auto add = KORVANE_PICK_AVX2(info, ImageAddLightMap, ImageAddLightMap_SSE, ImageAddLightMap_AVX2);
    if (!paste.simd) continue;  // the plain form is the reference
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int32_t d : {1, 2, 3, 4, 7, 8, 13, 33}) {
      for (int32_t w : {1, 3, 5, 9, 17, 23, 40}) {
        const int32_t h = 1 + static_cast<int32_t>(rng() % 23);
        LightShape shape = Shape(Noise(d, d, rng()));
        const SmartBuffer base = Noise(w, h, rng());
        for (int mode : {LIGHT_PASTE_INTENSITY, LIGHT_PASTE_CHANNELS}) {
          const LightPasteArgs args = Args(unit(rng), rng() % 256, rng() % 256, rng() % 256, mode);
          const PointF pt{unit(rng) * (w + 4) - 2, unit(rng) * (h + 4) - 2};
          const PointI pi{static_cast<int32_t>(pt.x + 0.5f), static_cast<int32_t>(pt.y + 0.5f)};
          SmartBuffer a = Bgra(w, h), b = Bgra(w, h);
          std::memcpy(a.data.get(), base.data.get(), static_cast<size_t>(a.stride) * h);
          std::memcpy(b.data.get(), base.data.get(), static_cast<size_t>(b.stride) * h);
          Rect roi;
          ASSERT_EQ(CalPasteLightROI(roi, pi, d, h, w), S_OK);
          ASSERT_EQ(PasteLight(shape, a, pi, args, roi), S_OK);
          ASSERT_EQ(paste.fn(shape, b, pi, args, roi), S_OK);
          ASSERT_EQ(Bytes(a), Bytes(b)) << paste.name << " d " << d << " w " << w << " mode " << mode;
          PointI origin;
          ASSERT_EQ(CalBilinearPasteLightROI(roi, origin, pt, d, h, w), S_OK);
          ASSERT_EQ(BilinearPasteLight(shape, a, pt, args, roi), S_OK);
          ASSERT_EQ(bilinear.fn(shape, b, pt, args, roi), S_OK);
          ASSERT_EQ(Bytes(a), Bytes(b)) << bilinear.name << " d " << d << " w " << w << " mode " << mode << " at "
                                        << pt.x << "," << pt.y;
        }
        // The light-map add over an inner roi, into a padded caller image,
        // as it is and at a strength through a table; the light has dark
        // runs, which the table form passes over.
        SmartBuffer light = Noise(w, h, rng());
        const size_t dark = std::min(static_cast<size_t>(w) * 4, static_cast<size_t>(w) * 4 / 2 + 4);  // within the row
        for (int32_t y = 0; y < h; y += 2) std::memset(RowPtr(light, y), 0, dark);
        const Rect roi{w / 3, h / 4, w, h};
        uint8_t table[256];
        CalLightAddTable(unit(rng), table);
        for (const uint8_t* t : {static_cast<const uint8_t*>(nullptr), static_cast<const uint8_t*>(table)}) {
          KorvaneTest::TestImage out_a(RectWidth(roi), RectHeight(roi), PIXEL_BGRA32, 3),
              out_b(RectWidth(roi), RectHeight(roi), PIXEL_BGRA32, 3);
          LightMapAddParam pa{base, light, out_a.buf, roi, t}, pb{base, light, out_b.buf, roi, t};
          ASSERT_EQ(ImageAddLightMap(pa, roi), S_OK);
          ASSERT_EQ(add.fn(pb, roi), S_OK);
          EXPECT_EQ(out_a.Packed(), out_b.Packed()) << add.name << " w " << w;
          EXPECT_TRUE(out_b.GuardsIntact());
          const uint8_t* o = out_a.buf.data;
          const uint8_t* bp = Px(base, roi.left, roi.top);
          const uint8_t* lp = Px(light, roi.left, roi.top);
          for (int k = 0; k < 3; ++k) EXPECT_EQ(o[k], std::min(255, bp[k] + (t ? t[lp[k]] : lp[k])));
          EXPECT_EQ(o[3], bp[3]);
        }
      }
    }
  }
}

// On a map narrower or lower than a shape, the part LightShapeWindow keeps
// (resized by ResizeShape, so the same pixels as the crop of the whole
// resize) pastes exactly as the whole shape, both placements, for every
// centre on the map.
TEST(LightPaste, WindowedShapesPasteAsTheWholeShape) {
  KorvaneTest::Runner run;
  std::mt19937 rng(21);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  const SmartBuffer source = Noise(23, 19, 4);
  for (auto [w, h, d] : {std::tuple<int32_t, int32_t, int32_t>{1, 40, 31}, {3, 2, 17}, {40, 1, 33}, {5, 30, 41}}) {
    LightShape whole, part;
    whole.d = part.d = d;
    part.window = LightShapeWindow(d, w, h);
    ASSERT_LT(RectWidth(part.window) * RectHeight(part.window), d * d) << "the window keeps less";
    for (LightShape* s : {&whole, &part}) {
      const Rect held = s->Held();
      s->shape = Bgra(RectWidth(held), RectHeight(held));
      s->tmp = Bgra(RectWidth(held) + 1, RectHeight(held) + 1);
      ASSERT_EQ(ResizeShape(run.adapter, KorvaneTest::Level(SIMD_SSE41), source, *s), S_OK);
    }
    for (int32_t y = 0; y < RectHeight(part.window); ++y)
      ASSERT_EQ(0, std::memcmp(RowPtr(part.shape, y), RowPtr(whole.shape, y + part.window.top) + 4 * part.window.left,
                               4 * static_cast<size_t>(RectWidth(part.window))))
          << "resized part, row " << y;
    for (int i = 0; i < 40; ++i) {
      const PointF pt{unit(rng) * w * 0.9999f, unit(rng) * h * 0.9999f};
      const PointI pi{static_cast<int32_t>(pt.x + 0.5f), static_cast<int32_t>(pt.y + 0.5f)};
      const LightPasteArgs args = Args(unit(rng), 255, 200, 100, i % 2);
      SmartBuffer a = Bgra(w, h), b = Bgra(w, h);
      Rect roi;
      PointI origin;
      ASSERT_EQ(CalBilinearPasteLightROI(roi, origin, pt, d, h, w), S_OK);
      ASSERT_EQ(BilinearPasteLight(whole, a, pt, args, roi), S_OK);
      ASSERT_EQ(BilinearPasteLight(part, b, pt, args, roi), S_OK);
      if (pi.x < w && pi.y < h) {
        ASSERT_EQ(CalPasteLightROI(roi, pi, d, h, w), S_OK);
        ASSERT_EQ(PasteLight(whole, a, pi, args, roi), S_OK);
        ASSERT_EQ(PasteLight(part, b, pi, args, roi), S_OK);
      }
      ASSERT_EQ(Bytes(a), Bytes(b)) << w << "x" << h << " d " << d << " at " << pt.x << "," << pt.y;
    }
  }
}

// T[i] = min((int)(i x strength + 0.5), 255), the product in float; every
// form gives it for every strength, the identity at 1.
TEST(LightPaste, AddTablesOfEveryFormAgree) {
  std::mt19937 rng(4);
  std::vector<float> strengths = {0.0f, 1.0f, 0.5f, 0.25f, 0.999f, 0.0039f, NAN, -3.0f, 7.0f};
  for (int i = 0; i < 200; ++i) strengths.push_back(std::uniform_real_distribution<float>(0, 1)(rng));
  for (float s : strengths) {
    uint8_t plain[256], simd[256];
    CalLightAddTable(s, plain);
    for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
      const auto table = KORVANE_PICK_AVX2(form.info, CalLightAddTable, CalLightAddTable_SSE, CalLightAddTable_AVX2);
      table.fn(s, simd);
      ASSERT_EQ(0, std::memcmp(plain, simd, 256)) << table.name << " " << s;
    }
    const float k = s > 0.0f ? std::min(s, 1.0f) : 0.0f;
    for (int i : {0, 1, 128, 255})
      ASSERT_EQ(plain[i], std::min(static_cast<int>(static_cast<float>(i) * k + 0.5), 255)) << s;
  }
  uint8_t one[256];
  CalLightAddTable(1.0f, one);
  for (int i = 0; i < 256; ++i) ASSERT_EQ(one[i], i);
}

TEST(LightPaste, RefusesWhatDoesNotFit) {
  SmartBuffer light = Bgra(8, 8);
  LightShape shape = White(3);
  Rect roi{0, 0, 3, 3};
  EXPECT_EQ(PasteLight(LightShape(), light, PointI{4, 4}, Args(1, 1, 1, 1), roi), E_POINTER);
  LightShape gray = shape;
  CreateSmartBufferData(gray.shape, 3, 3, PIXEL_GRAY8);
  EXPECT_EQ(PasteLight(gray, light, PointI{4, 4}, Args(1, 1, 1, 1), roi), E_NOTIMPL);
  EXPECT_EQ(PasteLight(Shape(Bgra(3, 4)), light, PointI{4, 4}, Args(1, 1, 1, 1), roi), E_INVALIDARG);
  shape.tmp = Bgra(3, 3);
  EXPECT_EQ(BilinearPasteLight(shape, light, PointF{4, 4}, Args(1, 1, 1, 1), roi), E_INVALIDARG);  // tmp small
  PointI origin;
  EXPECT_EQ(CalBilinearPasteLightROI(roi, origin, PointF{NAN, 1}, 3, 8, 8), E_INVALIDARG);
  LightMapAddParam p{light, Bgra(7, 8), ImageBuffer(), Rect{0, 0, 8, 8}};
  EXPECT_EQ(ImageAddLightMap(p, p.roi), E_POINTER);
}

// The sizes of the light map, with the examples the effects are built on.
TEST(LightMap, SizesRatiosAndRegions) {
  struct Norm {
    int32_t w, h, nw, nh;
  };
  for (const Norm n : {Norm{640, 480, 640, 480}, Norm{300, 600, 320, 640}, Norm{50, 40, 640, 512},
                       Norm{1, 65536, 1, 640}, Norm{7000, 5, 640, 1}}) {
    const LightSize got = CalNormSize(n.w, n.h);
    EXPECT_EQ(got.w, n.nw) << n.w << "x" << n.h;
    EXPECT_EQ(got.h, n.nh) << n.w << "x" << n.h;
  }
  struct Ratio {
    int32_t side;
    float want;
  };
  const float t = 3360.0f / 4480.0f;
  for (const Ratio c : {Ratio{300, 1.0f}, Ratio{640, 1.0f}, Ratio{2880, 0.625f}, Ratio{4000, 1.0f - t + 0.25f * t},
                        Ratio{5120, 0.25f}, Ratio{9000, 0.25f}}) {
    float r = 0.0f;
    ASSERT_EQ(CalLightMapScaleRatio(c.side, r), S_OK);
    EXPECT_FLOAT_EQ(r, c.want) << c.side;
  }
  float r = 0.0f;
  EXPECT_EQ(CalLightMapScaleRatio(0, r), E_INVALIDARG);
  const LightSize scaled = CalScaledSize(LightSize{4000, 3001}, 0.4375f);
  EXPECT_EQ(scaled.w, 1750);
  EXPECT_EQ(scaled.h, 1313);  // 1312.9375 rounded half up
  // One pixel of margin each side, cut to the map.
  Rect s;
  ASSERT_EQ(ResizeLightMapROI(Rect{100, 51, 400, 300}, s, 0.5f, LightSize{200, 151}), S_OK);
  EXPECT_EQ(Edges(s), std::make_tuple(49, 24, 200, 151));  // top trunc(25.5 - 1), right 201 cut to the map
  ASSERT_EQ(ResizeLightMapROI(Rect{0, 0, 10, 10}, s, 0.5f, LightSize{50, 50}), S_OK);
  EXPECT_EQ(s.left, 0);  // -1 held at 0
  EXPECT_EQ(ResizeLightMapROI(Rect{0, 0, 10, 10}, s, 0.0f, LightSize{50, 50}), E_INVALIDARG);
  EXPECT_EQ(ResizeLightMapROI(Rect{0, 0, 10, 10}, s, NAN, LightSize{50, 50}), E_INVALIDARG);
}

// A loop of n frames repeats exactly: frame n + k is frame k, for every
// animated setting's arithmetic and for loops up to INT_MAX frames.
TEST(LightMap, LoopsRepeatExactlyAndCostNothingForLongLoops) {
  for (int32_t count : {1, 3, 7, 48, 4952}) {
    for (int32_t k : {0, 1, count - 1}) {
      for (int32_t laps : {1, 2, 1000}) {
        const int32_t later = count * laps + k;
        ASSERT_EQ(LoopPhase(later, count, 360.0f), LoopPhase(k, count, 360.0f)) << count << " " << k;
        ASSERT_EQ(LoopPhase(later, count, 2.0), LoopPhase(k, count, 2.0));
        for (int32_t cycles : {1, 3})
          for (int32_t phase : {0, 17, 89})
            ASSERT_EQ(TwinkleFrameOffset(phase, 90, count, later, cycles),
                      TwinkleFrameOffset(phase, 90, count, k, cycles));
      }
    }
  }
  EXPECT_EQ(LoopPhase(5, 0, 1.0), 0.0);
  EXPECT_EQ(TwinkleFrameOffset(89, 90, 24, 0), 23);  // trunc(23.7 + 0.5), held at count - 1
  EXPECT_LE(LoopPhase(INT32_MAX - 1, INT32_MAX, 360.0f), 360.0f);

  // The curve stretched over a loop: the curve itself at its own length,
  // halfway between samples at twice it, and any frame of a loop of INT_MAX.
  const TwinkleCurve curve(12, 3, 0.25f, 3, 1.0f, 2, 0.3f, 2);
  const std::vector<float> want = {0, 0, 0, 0.25f, 0.5f, 0.75f, 1, 1, 0.6f, 0.3f, 0, 0};
  EXPECT_EQ(curve.Values(), want);
  for (int32_t i = 0; i < 12; ++i) EXPECT_EQ(curve.AtFrame(i, 12), want[i]) << i;
  for (int32_t i = 0; i < 11; ++i) EXPECT_FLOAT_EQ(curve.AtFrame(2 * i + 1, 24), 0.5f * (want[i] + want[i + 1])) << i;
  EXPECT_EQ(curve.AtFrame(0, 1), 0.0f);
  const float last = curve.AtFrame(INT32_MAX - 1, INT32_MAX);
  EXPECT_GE(last, 0.0f);
  EXPECT_LE(last, 0.3f);
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
