#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "TestSupport.h"
#include "effects/light_rays/LightRaysKernels.h"

using namespace Korvane;

namespace {

using Bytes = std::vector<uint8_t>;

SmartBuffer View(Bytes& b, int w, int h, int fmt = PIXEL_BGRA32) { return MakeSmartBufferView(b.data(), w, h, fmt); }

constexpr int kWidths[] = {1, 2, 3, 5, 7, 9, 17, 33};

// A ray-space image of the given lines, each row holding its [lo, hi), filled
// with `fill` bytes.
struct Space {
  std::vector<RayLine> lines;
  std::vector<RaySpan> spans;
  std::vector<uint32_t> pixels;
  RayRows rows;
  Space(const std::vector<RayLine>& of, uint8_t fill) : lines(of) {
    int64_t total = 0;
    for (const RayLine& l : lines) {
      spans.push_back(RaySpan{total - l.lo, l.lo, l.hi});
      total += l.hi - l.lo;
    }
    pixels.assign(static_cast<size_t>(total) + 1, 0x01010101u * fill);
    rows = RayRows{pixels.data(), spans.data(), lines.data()};
  }
};

}  // namespace

TEST(LightRaysKernels, TransformsPlainAndSseAgree) {
  std::mt19937 rng(9);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  for (int w : kWidths) {
    const int h = w % 5 + 2;
    Bytes img = KorvaneTest::RandomBytes(w * h * 4, 30 + w);
    SmartBuffer src = View(img, w, h);
    // Lines in every direction, some starting outside the image.
    const int rows = 24, cols = 2 * (w + h) + 3;
    std::vector<RayLine> lines(rows);
    for (RayLine& l : lines) {
      const float a = unit(rng) * 6.2831853f;
      l.dx = std::cos(a);
      l.dy = std::sin(a);
      l.x0 = unit(rng) * (w + 4) - 2;
      l.y0 = unit(rng) * (h + 4) - 2;
      CalLineRange(l, w, h, 2.0f, cols);
      l.src_end = l.lo + (l.hi - l.lo) * 3 / 4;
    }
    Space a(lines, 1), b(lines, 1);
    SampleRowsParam sp{&src, &a.rows};
    ASSERT_EQ(SampleRows(sp, Rect{0, 0, cols, rows}), S_OK);
    sp.dst = &b.rows;
    ASSERT_EQ(SampleRows_SSE(sp, Rect{0, 0, cols, rows}), S_OK);
    EXPECT_EQ(a.pixels, b.pixels) << w;

    // The smear of random rows (lengths short and long, every gain).
    Space noise(lines, 0);
    KorvaneTest::FillNoise(reinterpret_cast<uint8_t*>(noise.pixels.data()), noise.pixels.size() * 4, 60 + w);
    std::vector<uint16_t> gains(rows);
    for (uint16_t& g : gains) g = static_cast<uint16_t>(rng() % 257);
    for (int length : {1, 2, 5, cols, kMaxRayLength}) {
      Space sa(lines, 3), sb(lines, 3);
      SmearRowsParam smear{&noise.rows, &sa.rows, gains.data(), length};
      ASSERT_EQ(SmearRows(smear, Rect{0, 0, cols, rows}), S_OK);
      smear.dst = &sb.rows;
      ASSERT_EQ(SmearRows_SSE(smear, Rect{0, 0, cols, rows}), S_OK);
      EXPECT_EQ(sa.pixels, sb.pixels) << w << ", length " << length;
    }

    // Back from a ray-space image through a table of arbitrary positions.
    std::vector<float> map(static_cast<size_t>(w) * h * 2);
    for (size_t i = 0; i < map.size(); i += 2) {
      map[i] = unit(rng) * (cols + 6) - 3;
      map[i + 1] = unit(rng) * (rows + 6) - 3;
    }
    Bytes pa(w * h * 4, 0), pb(w * h * 4, 0);
    SmartBuffer qa = View(pa, w, h), qb = View(pb, w, h);
    PolarToCarteParam pp;
    pp.polar = &a.rows;
    pp.polar_w = cols;
    pp.polar_h = rows;
    pp.dst = &qa;
    pp.map = map.data();
    pp.r_base = 1.0f;
    pp.area = Rect{0, 0, w, h};
    ASSERT_EQ(PolarToCarte(pp, pp.area), S_OK);
    pp.dst = &qb;
    ASSERT_EQ(PolarToCarte_SSE(pp, pp.area), S_OK);
    EXPECT_EQ(pa, pb) << w << ": " << KorvaneTest::FirstDifference(pa, pb, w);

    // The inverse rotation at an arbitrary angle, reading past every edge.
    RotateBackParam rp;
    rp.rotated = &a.rows;
    rp.rotated_w = cols;
    rp.rotated_h = rows;
    rp.dst = &qa;
    rp.u0 = -2.5f;
    rp.ux = 0.8f;
    rp.uy = 0.6f;
    rp.v0 = rows * 0.5f;
    rp.vx = -0.6f;
    rp.vy = 0.8f;
    rp.area = Rect{0, h / 2, w, h};
    ASSERT_EQ(RotateBack(rp, rp.area), S_OK);
    rp.dst = &qb;
    ASSERT_EQ(RotateBack_SSE(rp, rp.area), S_OK);
    EXPECT_EQ(pa, pb) << w << ": " << KorvaneTest::FirstDifference(pa, pb, w);
  }
}

TEST(LightRaysKernels, LineRangesSamplingAndSmear) {
  // A horizontal line through row 2 of a 6 x 4 image, starting 3 left of it:
  // columns 2 .. 8 lie strictly inside (-1, 6) horizontally.
  RayLine l;
  l.x0 = -3.0f;
  l.y0 = 2.0f;
  CalLineRange(l, 6, 4, 1.0f, 20);
  EXPECT_EQ(l.lo, 2);
  EXPECT_EQ(l.hi, 10);
  RayLine miss = l;
  miss.y0 = 7.0f;
  CalLineRange(miss, 6, 4, 1.0f, 20);
  EXPECT_EQ(miss.hi - miss.lo, 0);

  // Sampling: exact pixels on the grid, half of the edge pixel just outside.
  Bytes img(6 * 4 * 4, 0);
  for (int x = 0; x < 6; ++x) img[(2 * 6 + x) * 4 + 1] = static_cast<uint8_t>(40 * x + 10);
  SmartBuffer src = View(img, 6, 4);
  l.x0 = -3.5f;
  l.src_end = 20;
  Space out({l}, 99);
  SampleRowsParam sp{&src, &out.rows};
  ASSERT_EQ(SampleRows(sp, Rect{0, 0, 20, 1}), S_OK);
  const auto green = [&](int c) { return out.rows.At(c, 0)[1]; };
  EXPECT_EQ(green(2), 0);    // x = -1.5: outside, black
  EXPECT_EQ(green(3), 5);    // x = -0.5: half of pixel 0 (10), half black
  EXPECT_EQ(green(4), 30);   // x = 0.5: between 10 and 50
  EXPECT_EQ(green(9), 105);  // x = 5.5: half of the last pixel (210)
  EXPECT_EQ(green(0), 0);    // outside [lo, hi): black

  // Smear: one sample of 200 at column 5 fades over L = 4 columns, gain 1.
  RayLine whole;
  whole.lo = 0;
  whole.hi = 12;
  Space in({whole}, 0), out_smear({whole}, 0);
  reinterpret_cast<uint8_t*>(in.pixels.data())[5 * 4 + 2] = 200;
  const uint8_t* smeared = reinterpret_cast<const uint8_t*>(out_smear.pixels.data());
  const uint16_t gain = 256;
  SmearRowsParam smear{&in.rows, &out_smear.rows, &gain, 4};
  ASSERT_EQ(SmearRows(smear, Rect{0, 0, 12, 1}), S_OK);
  // Weights 4, 3, 2, 1 over 4 x 5 / 4 + 1 = 6.
  const int want[12] = {0, 0, 0, 0, 0, 133, 100, 67, 33, 0, 0, 0};
  for (int c = 0; c < 12; ++c) EXPECT_NEAR(smeared[c * 4 + 2], want[c], 1) << c;
  for (int c = 0; c < 12; ++c) EXPECT_EQ(smeared[c * 4 + 0], 0) << c;
  const uint16_t dark = 0;
  smear.row_gain = &dark;
  ASSERT_EQ(SmearRows(smear, Rect{0, 0, 12, 1}), S_OK);
  for (int c = 0; c < 12; ++c) EXPECT_EQ(smeared[c * 4 + 2], 0) << c;
  smear.length = kMaxRayLength + 1;
  EXPECT_EQ(SmearRows(smear, Rect{0, 0, 12, 1}), E_INVALIDARG);
}

TEST(LightRaysKernels, HighLightDetect) {
  // Lightness (max + min) >> 1 against the threshold; the mask scales.
  Bytes src = {255, 255, 253, 9,   200, 100, 0, 9,   10, 20, 30, 9};
  Bytes mask = {128, 255, 255};
  Bytes dst(12, 77);
  SmartBuffer s = View(src, 3, 1), m = View(mask, 3, 1, PIXEL_GRAY8), d = View(dst, 3, 1);
  HighLightParam p{&s, &m, &d, 100.0f};
  ASSERT_EQ(HighLightDetect(p, Rect{0, 0, 3, 1}), S_OK);
  EXPECT_EQ(dst, (Bytes{128, 128, 126, 77, 200, 100, 0, 77, 0, 0, 0, 77}));
  p.threshold = 254.0f;  // 254 passes, 100 does not
  ASSERT_EQ(HighLightDetect(p, Rect{0, 0, 3, 1}), S_OK);
  EXPECT_EQ(dst[0], 128);
  EXPECT_EQ(dst[4], 0);
  p.threshold = 254.5f;
  ASSERT_EQ(HighLightDetect(p, Rect{0, 0, 3, 1}), S_OK);
  EXPECT_EQ(dst[0], 0);

  // The SSE4.1 form: every (value, mask) pair, and random pixels of odd widths.
  Bytes every(256 * 256 * 4), every_mask(256 * 256), a(every.size(), 9), b(every.size(), 9);
  for (int v = 0; v < 256; ++v)
    for (int k = 0; k < 256; ++k) {
      const size_t i = static_cast<size_t>(v) * 256 + k;
      every[i * 4] = every[i * 4 + 1] = every[i * 4 + 2] = static_cast<uint8_t>(v);
      every[i * 4 + 3] = static_cast<uint8_t>(k);
      every_mask[i] = static_cast<uint8_t>(k);
    }
  SmartBuffer es = View(every, 256, 256), em = View(every_mask, 256, 256, PIXEL_GRAY8);
  SmartBuffer ea = View(a, 256, 256), eb = View(b, 256, 256);
  for (float threshold : {0.0f, 99.5f, 128.0f, 255.0f}) {
    HighLightParam all{&es, &em, &ea, threshold};
    ASSERT_EQ(HighLightDetect(all, Rect{0, 0, 256, 256}), S_OK);
    all.dst = &eb;
    ASSERT_EQ(HighLightDetect_SSE(all, Rect{0, 0, 256, 256}), S_OK);
    ASSERT_EQ(a, b) << threshold << ": " << KorvaneTest::FirstDifference(a, b, 256);
  }
  for (int w : kWidths) {
    Bytes px = KorvaneTest::RandomBytes(w * 3 * 4, w), mk = KorvaneTest::RandomBytes(w * 3, w + 7);
    Bytes pa = KorvaneTest::RandomBytes(w * 3 * 4, 1), pb = pa;
    SmartBuffer ps = View(px, w, 3), pm = View(mk, w, 3, PIXEL_GRAY8), qa = View(pa, w, 3), qb = View(pb, w, 3);
    HighLightParam hp{&ps, &pm, &qa, 100.25f};
    ASSERT_EQ(HighLightDetect(hp, Rect{0, 0, w, 3}), S_OK);
    hp.dst = &qb;
    ASSERT_EQ(HighLightDetect_SSE(hp, Rect{0, 0, w, 3}), S_OK);
    EXPECT_EQ(pa, pb) << w << ": " << KorvaneTest::FirstDifference(pa, pb, w);
  }

}
