// Light-point detection: the kernels' edge rules, the whole detector on
// pictures with known bright spots, and the point list's repeatable draws.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "core/BoxBlur.h"
#include "core/ImageChecks.h"
#include "core/LightPointDetect.h"
#include "core/Random.h"
#include "core/SmartBuffer.h"

namespace Korvane {
namespace {

using KorvaneTest::Level;
using KorvaneTest::Runner;

SmartBuffer FloatMap(int32_t w, int32_t h, const std::vector<float>& values) {
  SmartBuffer b;
  CreateSmartBufferData(b, w, h, PIXEL_FLOAT32);
  for (int32_t y = 0; y < h; ++y) std::memcpy(RowPtr(b, y), values.data() + static_cast<size_t>(y) * w, 4u * w);
  return b;
}

float At(const SmartBuffer& b, int32_t x, int32_t y) { return RowPtr<const float>(b, y)[x]; }

// A dark, slightly noisy picture with a few bright 5 x 5 dots.
SmartBuffer Dots(int32_t w, int32_t h, const std::vector<std::pair<int32_t, int32_t>>& dots) {
  SmartBuffer b;
  CreateSmartBufferData(b, w, h, PIXEL_BGRA32);
  std::mt19937 rng(3);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) {
      uint8_t* p = RowPtr(b, y) + 4 * x;
      p[0] = p[1] = p[2] = static_cast<uint8_t>(20 + rng() % 4);
      p[3] = 255;
    }
  for (auto [cx, cy] : dots)
    for (int32_t y = cy - 2; y <= cy + 2; ++y)
      for (int32_t x = cx - 2; x <= cx + 2; ++x) std::memset(RowPtr(b, y) + 4 * x, 250, 3);
  return b;
}

std::set<std::pair<int32_t, int32_t>> Points(const SmartBuffer& map) {
  std::set<std::pair<int32_t, int32_t>> out;
  for (int32_t y = 0; y < map.height; ++y)
    for (int32_t x = 0; x < map.width; ++x)
      if (RowPtr<const uint8_t>(map, y)[x] != 0) out.insert({x, y});
  return out;
}

SmartBuffer Detect(Runner& run, const SmartBuffer& src, int simd = SIMD_SSE41) {
  SmartBuffer map;
  CreateSmartBufferData(map, src.width, src.height, PIXEL_GRAY8);
  std::memset(map.data.get(), 7, static_cast<size_t>(map.stride) * map.height);  // must all be rewritten
  EXPECT_EQ(InitAutoBokehMap(run.adapter, Level(simd), src, map), S_OK);
  return map;
}

TEST(LightPointDetect, GradientsClampAtTheEdgesAndUseHslLightness) {
  // One row: lightness (max + min) / 2 of (10, 20, 30) is 20, of pure red 127.5.
  SmartBuffer src;
  CreateSmartBufferData(src, 3, 2, PIXEL_BGRA32);
  const uint8_t px[2][3][4] = {{{10, 20, 30, 0}, {0, 0, 255, 0}, {100, 100, 100, 0}},
                               {{0, 0, 0, 0}, {255, 255, 255, 0}, {50, 60, 70, 0}}};
  for (int y = 0; y < 2; ++y) std::memcpy(RowPtr(src, y), px[y], 12);
  SmartBuffer dx = FloatMap(3, 2, std::vector<float>(6)), dy = FloatMap(3, 2, std::vector<float>(6));
  ASSERT_EQ(GradientH(src, dx, 2, FullRect(src)), S_OK);
  ASSERT_EQ(GradientV(src, dy, 5, FullRect(src)), S_OK);
  EXPECT_FLOAT_EQ(At(dx, 0, 0), (20.0f - 100.0f) / 255.0f);  // left clamped to column 0
  EXPECT_FLOAT_EQ(At(dx, 1, 0), (20.0f - 100.0f) / 255.0f);  // both sides clamped
  EXPECT_FLOAT_EQ(At(dx, 2, 1), (0.0f - 60.0f) / 255.0f);
  EXPECT_FLOAT_EQ(At(dy, 1, 0), (127.5f - 255.0f) / 255.0f);  // rows clamped
  EXPECT_FLOAT_EQ(At(dy, 0, 1), (20.0f - 0.0f) / 255.0f);
  // A destination that is not FLOAT32 is an argument error; a source that is not BGRA32 is not handled.
  EXPECT_EQ(GradientH(src, src, 1, FullRect(src)), E_INVALIDARG);
  EXPECT_EQ(GradientV(dx, dy, 1, FullRect(src)), E_NOTIMPL);
  EXPECT_EQ(GradientH(src, dx, 1, Rect{0, 0, 4, 2}), E_INVALIDARG);
}

// The detector's fused gradient products equal the separate kernels run in
// turn: the response of a noisy picture computed both ways.
TEST(LightPointDetect, HarrisMatchesTheSeparateKernels) {
  KorvaneTest::Runner run;
  for (auto [w, h] : {std::pair<int32_t, int32_t>{67, 41}, {9, 5}}) {
    SmartBuffer src;
    CreateSmartBufferData(src, w, h, PIXEL_BGRA32);
    KorvaneTest::FillNoise(src.data.get(), static_cast<size_t>(src.stride) * src.height, 12);
    const Rect all = FullRect(src);
    const int32_t d = 3;
    SmartBuffer dx, dy, dxx, dyy, dxy, want;
    for (SmartBuffer* b : {&dx, &dy, &dxx, &dyy, &dxy, &want}) CreateSmartBufferData(*b, w, h, PIXEL_FLOAT32);
    ASSERT_EQ(GradientH(src, dx, d, all), S_OK);
    ASSERT_EQ(GradientV(src, dy, d, all), S_OK);
    ASSERT_EQ(MultiplyBuffer(dx, dx, dxx, all), S_OK);
    ASSERT_EQ(MultiplyBuffer(dy, dy, dyy, all), S_OK);
    ASSERT_EQ(MultiplyBuffer(dx, dy, dxy, all), S_OK);
    for (SmartBuffer* b : {&dxx, &dyy, &dxy}) {
      BoxBlurParam blur;
      blur.src = ImageBuffer{b->data.get(), b->width, b->height, b->stride, 1, PIXEL_FLOAT32};
      blur.radius = d;
      ASSERT_EQ(RunBoxBlur(run.adapter, Level(0), blur, all, 2), S_OK);
    }
    ASSERT_EQ(CalCornerResponse(dxx, dyy, dxy, want, 0.006f, all), S_OK);
    float lo, hi;
    ASSERT_EQ(GetBuffMinMax(want, lo, hi, all), S_OK);
    ASSERT_EQ(NormalizeMinMax(want, 0.0f, hi, 0.0f, 255.0f, all), S_OK);
    // Every form of the whole detector step gives the separate plain kernels' map.
    for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
      SmartBuffer got;
      CreateSmartBufferData(got, w, h, PIXEL_FLOAT32);
      ASSERT_EQ(HarrisCorner(run.adapter, form.info, src, got, 0.006f, d, all), S_OK);
      for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) ASSERT_EQ(At(got, x, y), At(want, x, y)) << form.name << " " << x << "," << y;
    }
  }
}

// The AVX2 forms of the map kernels against the plain ones on random maps
// (negative values, plateaus, NaN, values past 255) of awkward widths, over
// rois that do not start at column 0.
TEST(LightPointDetect, MapKernelsOfEveryFormAgree) {
  std::mt19937 rng(8);
  for (int32_t w : {1, 7, 8, 9, 17, 30}) {
    const int32_t h = 5;
    std::vector<float> v(static_cast<size_t>(w) * h);
    for (float& x : v) x = static_cast<float>(static_cast<int32_t>(rng() % 700) - 200) * 0.75f;
    v[static_cast<size_t>(rng() % v.size())] = NAN;
    const Rect roi{w / 3, 1, w, h};
    for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
      const SystemInfo& info = form.info;
      const auto pick = [&](auto plain, const char* plain_name, auto avx2, const char* avx2_name) {
        return ChooseKernel<decltype(plain)>(info, plain, plain_name, nullptr, "", avx2, avx2_name).fn;
      };
      SmartBuffer a = FloatMap(w, h, v), b = FloatMap(w, h, v), c = FloatMap(w, h, v);
      SmartBuffer ra = FloatMap(w, h, std::vector<float>(v.size(), 3.0f));
      SmartBuffer rb = FloatMap(w, h, std::vector<float>(v.size(), 3.0f));
      ASSERT_EQ(CalCornerResponse(a, b, c, ra, 0.006f, roi), S_OK);
      ASSERT_EQ(pick(&CalCornerResponse, "", KORVANE_AVX2(CalCornerResponse_AVX2), "")(a, b, c, rb, 0.006f, roi), S_OK);
      float lo_a, hi_a, lo_b, hi_b;
      ASSERT_EQ(GetBuffMinMax(a, lo_a, hi_a, roi), S_OK);
      ASSERT_EQ(pick(&GetBuffMinMax, "", KORVANE_AVX2(GetBuffMinMax_AVX2), "")(a, lo_b, hi_b, roi), S_OK);
      EXPECT_EQ(lo_a, lo_b) << form.name << " w " << w;
      EXPECT_EQ(hi_a, hi_b) << form.name << " w " << w;
      ASSERT_EQ(NormalizeMinMax(a, -10.0f, 400.0f, 0.0f, 255.0f, roi), S_OK);
      ASSERT_EQ(pick(&NormalizeMinMax, "", KORVANE_AVX2(NormalizeMinMax_AVX2), "")(b, -10.0f, 400.0f, 0.0f, 255.0f, roi),
                S_OK);
      SmartBuffer ga, gb;
      CreateSmartBufferData(ga, w, h, PIXEL_GRAY8);
      CreateSmartBufferData(gb, w, h, PIXEL_GRAY8);
      ASSERT_EQ(CvtBuffFloatToChar(c, ga, roi), S_OK);
      ASSERT_EQ(pick(&CvtBuffFloatToChar, "", KORVANE_AVX2(CvtBuffFloatToChar_AVX2), "")(c, gb, roi), S_OK);
      ASSERT_EQ(ThreshCornerMap(c, 25.0f, roi), S_OK);
      SmartBuffer d = FloatMap(w, h, v);
      ASSERT_EQ(pick(&ThreshCornerMap, "", KORVANE_AVX2(ThreshCornerMap_AVX2), "")(d, 25.0f, roi), S_OK);
      for (int32_t y = roi.top; y < roi.bottom; ++y)
        for (int32_t x = roi.left; x < roi.right; ++x) {
          const auto same = [](float p, float q) { return std::memcmp(&p, &q, 4) == 0; };
          ASSERT_TRUE(same(At(ra, x, y), At(rb, x, y))) << form.name << " response " << x << "," << y;
          ASSERT_TRUE(same(At(a, x, y), At(b, x, y))) << form.name << " normalised " << x << "," << y;
          ASSERT_TRUE(same(At(c, x, y), At(d, x, y))) << form.name << " threshold " << x << "," << y;
          ASSERT_EQ(RowPtr<uint8_t>(ga, y)[x], RowPtr<uint8_t>(gb, y)[x]) << form.name << " bytes " << x << "," << y;
        }
    }
  }
}

TEST(LightPointDetect, MinMaxNormaliseSuppressThreshold) {
  // All-negative responses report the tiny positive maximum, and normalising
  // by it sends everything to 0.
  SmartBuffer neg = FloatMap(3, 1, {-1.0f, -2.0f, -0.5f});
  float lo = 0, hi = 0;
  ASSERT_EQ(GetBuffMinMax(neg, lo, hi, FullRect(neg)), S_OK);
  EXPECT_EQ(lo, -2.0f);
  EXPECT_EQ(hi, FLT_MIN);
  ASSERT_EQ(NormalizeMinMax(neg, 0.0f, hi, 0.0f, 255.0f, FullRect(neg)), S_OK);
  for (int x = 0; x < 3; ++x) EXPECT_EQ(At(neg, x, 0), 0.0f);

  // Equal neighbouring maxima both survive; a strictly greater pixel four
  // away suppresses, five away does not.
  SmartBuffer m = FloatMap(12, 1, {9, 9, 0, 0, 0, 6, 7, 0, 0, 0, 0, 3});
  SmartBuffer out = FloatMap(12, 1, std::vector<float>(12, 0.0f));
  ASSERT_EQ(NonMaximumSuppress(m, out, 4, FullRect(m)), S_OK);
  const std::vector<float> want = {9, 9, 0, 0, 0, 0, 7, 0, 0, 0, 0, 3};
  for (int x = 0; x < 12; ++x) EXPECT_EQ(At(out, x, 0), want[x]) << x;
  SmartBuffer same = FloatMap(12, 1, std::vector<float>(12, -1.0f));
  EXPECT_EQ(NonMaximumSuppress(m, same, 0, FullRect(m)), S_OK);  // radius 0: untouched
  EXPECT_EQ(At(same, 0, 0), -1.0f);
  EXPECT_EQ(NonMaximumSuppress(m, same, -1, FullRect(m)), E_INVALIDARG);

  // The threshold itself passes; just below does not. The 8-bit conversion
  // clamps and truncates.
  SmartBuffer t = FloatMap(4, 1, {25.0f, 24.99f, 300.0f, -3.0f});
  ASSERT_EQ(ThreshCornerMap(t, 25.0f, FullRect(t)), S_OK);
  EXPECT_EQ(At(t, 0, 0), 1.0f);
  EXPECT_EQ(At(t, 1, 0), 0.0f);
  SmartBuffer f = FloatMap(4, 1, {255.9f, 300.0f, -3.0f, 1.0f});
  SmartBuffer g;
  CreateSmartBufferData(g, 4, 1, PIXEL_GRAY8);
  ASSERT_EQ(CvtBuffFloatToChar(f, g, FullRect(f)), S_OK);
  EXPECT_EQ(std::vector<uint8_t>(g.data.get(), g.data.get() + 4), (std::vector<uint8_t>{255, 255, 0, 1}));
}

// Suppression against the plain rule (scan the clipped window) on maps with
// many equal values, several radii and regions touching the edges.
TEST(LightPointDetect, SuppressionMatchesTheWindowRule) {
  std::mt19937 rng(21);
  for (int round = 0; round < 40; ++round) {
    const int32_t w = 1 + static_cast<int32_t>(rng() % 37), h = 1 + static_cast<int32_t>(rng() % 29);
    const int32_t r = 1 + static_cast<int32_t>(rng() % 6);
    std::vector<float> v(static_cast<size_t>(w) * h);
    for (float& x : v) x = static_cast<float>(rng() % 5);  // plateaus
    const SmartBuffer src = FloatMap(w, h, v);
    Rect roi{static_cast<int32_t>(rng() % w), static_cast<int32_t>(rng() % h), 0, 0};
    roi.right = roi.left + 1 + static_cast<int32_t>(rng() % (w - roi.left));
    roi.bottom = roi.top + 1 + static_cast<int32_t>(rng() % (h - roi.top));
    for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
      const auto suppress = ChooseKernel<decltype(&NonMaximumSuppress)>(
          form.info, &NonMaximumSuppress, "NonMaximumSuppress", nullptr, "", KORVANE_AVX2(NonMaximumSuppress_AVX2),
          "NonMaximumSuppress_AVX2");
      SmartBuffer out = FloatMap(w, h, std::vector<float>(v.size(), -1.0f));
      ASSERT_EQ(suppress.fn(src, out, r, roi), S_OK);
      for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
          const bool inside = x >= roi.left && x < roi.right && y >= roi.top && y < roi.bottom;
          bool greater = false;
          for (int32_t yy = std::max(0, y - r); yy <= std::min(h - 1, y + r); ++yy)
            for (int32_t xx = std::max(0, x - r); xx <= std::min(w - 1, x + r); ++xx)
              greater |= At(src, xx, yy) > At(src, x, y);
          const float want = inside && !greater ? At(src, x, y) : -1.0f;
          ASSERT_EQ(At(out, x, y), want) << suppress.name << " round " << round << " at " << x << "," << y << " r " << r;
        }
    }
  }
}

TEST(LightPointDetect, UniformPictureGivesNoPoints) {
  Runner run;
  SmartBuffer flat;
  CreateSmartBufferData(flat, 64, 48, PIXEL_BGRA32);
  std::memset(flat.data.get(), 128, static_cast<size_t>(flat.stride) * flat.height);
  const SmartBuffer map = Detect(run, flat);
  EXPECT_TRUE(Points(map).empty());
  LightPointList list;
  list[5] = LightPoint();
  ASSERT_EQ(InitLightPointList(map, 132, 24, list), S_OK);
  EXPECT_TRUE(list.empty());
}

TEST(LightPointDetect, FindsBrightDotsAndNothingElse) {
  // 640 wide, as the effects run it (gradient radius 3).
  const std::vector<std::pair<int32_t, int32_t>> dots = {{20, 15}, {300, 160}, {600, 40}, {160, 200}, {630, 230}};
  Runner run;
  const SmartBuffer map = Detect(run, Dots(640, 240, dots));
  const auto found = Points(map);
  ASSERT_FALSE(found.empty());
  for (auto [x, y] : found) {
    bool near = false;
    for (auto [cx, cy] : dots) near |= std::abs(x - cx) <= 2 && std::abs(y - cy) <= 2;
    EXPECT_TRUE(near) << "point at " << x << ", " << y;
  }
  for (auto [cx, cy] : dots) {
    bool hit = false;
    for (auto [x, y] : found) hit |= std::abs(x - cx) <= 2 && std::abs(y - cy) <= 2;
    EXPECT_TRUE(hit) << "dot at " << cx << ", " << cy;
  }
  // Plain and SSE box blurs, and any number of workers, give the same map.
  EXPECT_EQ(Points(Detect(run, Dots(640, 240, dots), 0)), found);
  KorvaneTest::ExpectSameForWorkerCounts(
      [&](Runner& r) {
        const SmartBuffer m = Detect(r, Dots(640, 240, dots));
        return std::vector<uint8_t>(m.data.get(), m.data.get() + static_cast<size_t>(m.stride) * m.height);
      },
      "location map");
}

TEST(LightPointDetect, SettingsReachTheDetector) {
  // The float map keeps 0 / 1; a threshold above 255 finds nothing.
  Runner run;
  const SmartBuffer src = Dots(90, 70, {{30, 30}});
  SmartBuffer map;
  LightPointSettings s;
  s.radius = 2;
  ASSERT_EQ(DetectLightPoints(run.adapter, Level(SIMD_SSE41), src, s, map), S_OK);
  ASSERT_TRUE(IsFormat(map, PIXEL_FLOAT32));
  int ones = 0;
  for (int32_t y = 0; y < map.height; ++y)
    for (int32_t x = 0; x < map.width; ++x) {
      const float v = At(map, x, y);
      ASSERT_TRUE(v == 0.0f || v == 1.0f);
      ones += v == 1.0f;
    }
  EXPECT_GE(ones, 1);
  s.threshold = 256.0f;
  ASSERT_EQ(DetectLightPoints(run.adapter, Level(SIMD_SSE41), src, s, map), S_OK);
  LightPointList list;
  ASSERT_EQ(InitLightPointList(map, 90, 24, list), S_OK);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(LightPointRadius(640, 4.0f), 3);
  EXPECT_EQ(LightPointRadius(5000, 4.0f), 4);
  EXPECT_EQ(LightPointRadius(640, 2.0f), 2);
}

// A point's draws come from the first words of its own generator, made
// without the engine's whole state; they must be the engine's words, also
// when rejections draw past the first few (huge counts redraw often) and
// for points batched together in a list.
TEST(LightPointDetect, PointDrawsAreTheEnginesDraws) {
  const auto reference = [](uint32_t seed, uint32_t phases, uint32_t colours) {
    Mt19937 gen(seed);
    LightPoint p;
    p.phase = static_cast<int32_t>(DrawIndex(gen, phases));
    p.random = DrawUnit(gen);
    p.color_index = static_cast<int32_t>(DrawIndex(gen, colours));
    return p;
  };
  const auto expect_draws = [](const LightPoint& got, const LightPoint& want, int64_t key) {
    EXPECT_TRUE(got.phase == want.phase && got.random == want.random && got.color_index == want.color_index)
        << key << ": " << got.phase << " " << got.random << " " << got.color_index;
  };
  for (auto [phases, colours] : {std::pair<uint32_t, uint32_t>{132, 24}, {0x80000001u, 0x7fffffffu}, {1, 1}}) {
    for (uint32_t seed = 0; seed < 3000; seed += 7)
      expect_draws(DrawLightPoint(seed, static_cast<int32_t>(phases), static_cast<int32_t>(colours)),
                   reference(seed, phases, colours), seed);
  }
  SmartBuffer map;
  CreateSmartBufferData(map, 61, 7, PIXEL_GRAY8);
  for (int32_t y = 0; y < 7; ++y)
    for (int32_t x = 0; x < 61; ++x) RowPtr(map, y)[x] = static_cast<uint8_t>((x * 7 + y * 3) % 5 == 0);
  LightPointList list;
  ASSERT_EQ(InitLightPointList(map, 132, 24, list), S_OK);
  ASSERT_GT(list.size(), 60u);
  for (const auto& [k, p] : list) expect_draws(p, reference(static_cast<uint32_t>(k), 132, 24), k);
}

// Points are the map's bytes of exactly 1, keyed by their index in scan
// order; their draws are checked against the engine's above.
TEST(LightPointDetect, ListHoldsThePointsInScanOrder) {
  SmartBuffer map;
  CreateSmartBufferData(map, 40, 30, PIXEL_GRAY8);
  std::memset(map.data.get(), 0, static_cast<size_t>(map.stride) * map.height);
  const std::vector<std::pair<int32_t, int32_t>> marks = {{39, 29}, {0, 0}, {7, 3}, {8, 3}};
  for (auto [x, y] : marks) RowPtr(map, y)[x] = 1;
  RowPtr(map, 10)[10] = 2;  // only exactly 1 is a point
  LightPointList a;
  ASSERT_EQ(InitLightPointList(map, 132, 24, a), S_OK);
  ASSERT_EQ(a.size(), 4u);
  std::vector<int32_t> keys;
  for (const auto& [k, p] : a) {
    keys.push_back(k);
    EXPECT_EQ(k, p.y * 40 + p.x);
    EXPECT_EQ(p.enabled, 1);
    EXPECT_EQ(p.flag, 0);
  }
  EXPECT_EQ(keys, (std::vector<int32_t>{0, 127, 128, 1199}));  // scan order
  EXPECT_EQ(InitLightPointList(map, 0, 24, a), E_INVALIDARG);
  EXPECT_TRUE(a.empty());
  SmartBuffer bgra;
  CreateSmartBufferData(bgra, 2, 2, PIXEL_BGRA32);
  EXPECT_EQ(InitLightPointList(bgra, 132, 24, a), E_NOTIMPL);
  EXPECT_EQ(InitLightPointList(SmartBuffer(), 132, 24, a), E_POINTER);
}

}  // namespace
}  // namespace Korvane
