#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "core/SmartBuffer.h"
#include "effects/light_rays/LightRaysKernels.h"

using namespace Korvane;

namespace {

using Bytes = std::vector<uint8_t>;

SmartBuffer View(Bytes& b, int w, int h, int fmt = PIXEL_BGRA32) { return MakeSmartBufferView(b.data(), w, h, fmt); }

constexpr int kWidths[] = {1, 2, 3, 5, 7, 9, 15, 17, 33};

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

// Runs the plain kernel into `a` and another form into `b`, the record
// otherwise the same.
template <class Param, class Dst, class Fn>
void PlainAndForm(Param p, Fn plain, Fn form, Dst* a, Dst* b, const Rect& band) {
  p.dst = a;
  ASSERT_EQ(plain(p, band), S_OK);
  p.dst = b;
  ASSERT_EQ(form(p, band), S_OK);
}

}  // namespace

// The forms of the ray-space kernels a SystemInfo picks, by name.
struct RayForms {
  Kernel<int32_t (*)(const SampleRowsParam&, const Rect&)> sample;
  Kernel<int32_t (*)(const SmearRowsParam&, const Rect&)> smear;
  Kernel<int32_t (*)(const PolarToCarteParam&, const Rect&)> to_carte;
  Kernel<int32_t (*)(const RotateBackParam&, const Rect&)> rotate_back;
  explicit RayForms(const SystemInfo& info)
      : sample(KORVANE_PICK_AVX2(info, SampleRows, SampleRows_SSE, SampleRows_AVX2)),
        smear(KORVANE_PICK_AVX2(info, SmearRows, SmearRows_SSE, SmearRows_AVX2)),
        to_carte(KORVANE_PICK_AVX2(info, PolarToCarte, PolarToCarte_SSE, PolarToCarte_AVX2)),
        rotate_back(KORVANE_PICK_AVX2(info, RotateBack, RotateBack_SSE, RotateBack_AVX2)) {}
};

// Every SIMD form against the plain one: lines in every direction through
// images of awkward widths, smears of every length, and the way back
// through arbitrary positions (most of them off the held columns) and
// through a smooth field over a fully held space (the common case, where
// whole groups of cells are read at once).
TEST(LightRaysKernels, TransformsOfEveryFormAgree) {
  for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
    const RayForms f(form.info);
    if (!f.sample.simd) continue;  // the plain form is the reference
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int w : {1, 2, 3, 5, 7, 9, 15, 17, 33, 40, 67}) {
      const int h = w < 40 ? w % 5 + 2 : w / 2 + 3;
      Bytes img = KorvaneTest::RandomBytes(w * h * 4, 30 + w);
      SmartBuffer src = View(img, w, h);
      // Lines in every direction, some starting outside the image, every
      // other one across it from its left edge (long runs of columns that
      // neighbouring rows share).
      const int rows = 24, cols = 2 * (w + h) + 3;
      const Rect space{0, 0, cols, rows};
      std::vector<RayLine> lines(rows);
      for (size_t j = 0; j < lines.size(); ++j) {
        RayLine& l = lines[j];
        const float a = j % 2 ? (unit(rng) - 0.5f) * 0.4f : unit(rng) * 6.2831853f;
        l.dx = std::cos(a);
        l.dy = std::sin(a);
        l.x0 = j % 2 ? unit(rng) * 3 - 2 : unit(rng) * (w + 4) - 2;
        l.y0 = unit(rng) * (h + 4) - 2;
        CalLineRange(l, w, h, 2.0f, cols);
        l.src_end = l.lo + (l.hi - l.lo) * 3 / 4;
      }
      Space a(lines, 1), b(lines, 1);
      PlainAndForm(SampleRowsParam{&src}, SampleRows, f.sample.fn, &a.rows, &b.rows, space);
      EXPECT_EQ(a.pixels, b.pixels) << f.sample.name << " " << w;

      // The smear of random rows (lengths short and long, every gain).
      Space noise(lines, 0);
      KorvaneTest::FillNoise(reinterpret_cast<uint8_t*>(noise.pixels.data()), noise.pixels.size() * 4, 60 + w);
      std::vector<uint16_t> gains(rows);
      for (uint16_t& g : gains) g = static_cast<uint16_t>(rng() % 257);
      for (int length : {1, 2, 5, 21, cols, kMaxRayLength}) {
        Space sa(lines, 3), sb(lines, 3);
        PlainAndForm(SmearRowsParam{&noise.rows, nullptr, gains.data(), length}, SmearRows, f.smear.fn, &sa.rows,
                     &sb.rows, space);
        EXPECT_EQ(sa.pixels, sb.pixels) << f.smear.name << " " << w << ", length " << length;
      }

      // Back from a ray-space image through a table of arbitrary positions,
      // then the inverse rotation at an arbitrary angle, reading past every edge.
      std::vector<float> map(static_cast<size_t>(w) * h * 2);
      for (size_t i = 0; i < map.size(); i += 2) {
        map[i] = unit(rng) * (cols + 6) - 3;
        map[i + 1] = unit(rng) * (rows + 6) - 3;
      }
      Bytes pa(w * h * 4, 0), pb(w * h * 4, 0);
      SmartBuffer qa = View(pa, w, h), qb = View(pb, w, h);
      const Rect whole{0, 0, w, h}, lower{0, h / 2, w, h};
      PlainAndForm(PolarToCarteParam{&a.rows, cols, rows, nullptr, map.data(), 1.0f, whole}, PolarToCarte,
                   f.to_carte.fn, &qa, &qb, whole);
      EXPECT_EQ(pa, pb) << f.to_carte.name << " " << w << ": " << KorvaneTest::FirstDifference(pa, pb, w);
      PlainAndForm(RotateBackParam{&a.rows, cols, rows, nullptr, -2.5f, 0.8f, 0.6f, rows * 0.5f, -0.6f, 0.8f, lower},
                   RotateBack, f.rotate_back.fn, &qa, &qb, lower);
      EXPECT_EQ(pa, pb) << f.rotate_back.name << " " << w << ": " << KorvaneTest::FirstDifference(pa, pb, w);
    }

    // A space whose rows hold every column but a few at the ends of some
    // rows, read through a smooth field and a turn (and a padded image).
    const int cols = 53, rows = 41, w = 37, h = 29;
    std::vector<RayLine> full(rows);
    for (int j = 0; j < rows; ++j) {
      full[static_cast<size_t>(j)].lo = j % 7 == 3 ? 2 : 0;
      full[static_cast<size_t>(j)].hi = j % 5 == 1 ? cols - 3 : cols;
    }
    Space space(full, 0);
    KorvaneTest::FillNoise(reinterpret_cast<uint8_t*>(space.pixels.data()), space.pixels.size() * 4, 5);
    std::vector<float> map(static_cast<size_t>(w) * h * 2);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        map[(static_cast<size_t>(y) * w + x) * 2] = 1.3f * x + 0.21f * y + 0.37f;
        map[(static_cast<size_t>(y) * w + x) * 2 + 1] = 1.1f * y - 0.05f * x + 0.5f;
      }
    KorvaneTest::TestImage ta(w, h, PIXEL_BGRA32, 12), tb(w, h, PIXEL_BGRA32, 12);
    SmartBuffer da = SmartBufferView(ta.buf), db = SmartBufferView(tb.buf);
    const Rect whole{0, 0, w, h};
    PlainAndForm(PolarToCarteParam{&space.rows, cols, rows, nullptr, map.data(), 0.25f, Rect{1, 2, w, h - 1}},
                 PolarToCarte, f.to_carte.fn, &da, &db, whole);
    EXPECT_EQ(KorvaneTest::FirstDifference(ta.Packed(), tb.Packed(), w), "") << f.to_carte.name;
    EXPECT_TRUE(tb.GuardsIntact());
    PlainAndForm(RotateBackParam{&space.rows, cols, rows, nullptr, 3.1f, 0.96f, 0.28f, 1.7f, -0.28f, 0.96f, whole},
                 RotateBack, f.rotate_back.fn, &da, &db, whole);
    EXPECT_EQ(KorvaneTest::FirstDifference(ta.Packed(), tb.Packed(), w), "") << f.rotate_back.name;
    EXPECT_TRUE(tb.GuardsIntact());
  }
}

TEST(LightRaysKernels, LineRangesSamplingAndSmear) {
  // A horizontal line through row 2 of a 6 x 4 image, starting 3 left of it:
  // columns 2 .. 8 lie strictly inside (-1, 6) horizontally.
  RayLine l;
  l.x0 = -3.0f, l.y0 = 2.0f;
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
  whole.hi = 12;  // from column 0
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

  // The SIMD forms: every (value, mask) pair, and random pixels of odd widths.
  Bytes every(256 * 256 * 4), every_mask(256 * 256);
  for (int v = 0; v < 256; ++v)
    for (int k = 0; k < 256; ++k) {
      const size_t i = static_cast<size_t>(v) * 256 + k;
      every[i * 4] = every[i * 4 + 1] = every[i * 4 + 2] = static_cast<uint8_t>(v);
      every[i * 4 + 3] = static_cast<uint8_t>(k);
      every_mask[i] = static_cast<uint8_t>(k);
    }
  SmartBuffer es = View(every, 256, 256), em = View(every_mask, 256, 256, PIXEL_GRAY8);
  const auto detect = [](const KorvaneTest::Form& form, SmartBuffer* src, SmartBuffer* mask, Bytes out, int w, int h,
                         float threshold) {
    SmartBuffer dst = View(out, w, h);
    HighLightParam p{src, mask, &dst, threshold};
    EXPECT_EQ(KORVANE_PICK_AVX2(form.info, HighLightDetect, HighLightDetect_SSE, HighLightDetect_AVX2)
                  .fn(p, Rect{0, 0, w, h}),
              S_OK);
    return out;
  };
  for (float threshold : {0.0f, 99.5f, 128.0f, 255.0f}) {
    KorvaneTest::ExpectFormsMatchPlain(
        [&](const KorvaneTest::Form& form) {
          return detect(form, &es, &em, Bytes(every.size(), 9), 256, 256, threshold);
        },
        "every pair at " + std::to_string(threshold), 256);
  }
  for (int w : kWidths) {
    Bytes px = KorvaneTest::RandomBytes(w * 3 * 4, w), mk = KorvaneTest::RandomBytes(w * 3, w + 7);
    SmartBuffer ps = View(px, w, 3), pm = View(mk, w, 3, PIXEL_GRAY8);
    KorvaneTest::ExpectFormsMatchPlain(
        [&](const KorvaneTest::Form& form) {
          return detect(form, &ps, &pm, KorvaneTest::RandomBytes(w * 3 * 4, 1), w, 3, 100.25f);
        },
        std::to_string(w) + " wide", w);
  }
}

// The colour stage: every 8-bit colour (each 4096-pixel row holds every
// green and blue for 16 reds) through tables that reach both ends of their
// range and hue shifts that wrap both ways, in rows of awkward widths.
TEST(LightRaysKernels, ColourStageOfEveryFormAgrees) {
  const int w = 4096, h = 4096;
  Bytes colours(static_cast<size_t>(w) * h * 4);
  for (size_t i = 0; i < static_cast<size_t>(w) * h; ++i) {
    colours[i * 4] = static_cast<uint8_t>(i);
    colours[i * 4 + 1] = static_cast<uint8_t>(i >> 8);
    colours[i * 4 + 2] = static_cast<uint8_t>(i >> 16);
    colours[i * 4 + 3] = static_cast<uint8_t>(i * 7);
  }
  int32_t value_lut[256], sat_lut[256];
  for (int i = 0; i < 256; ++i) {
    value_lut[i] = std::min(i * 200, 40000);  // past kHsvMax: clamped
    sat_lut[i] = (255 - i) * 140;
  }
  for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
    const auto post = ChooseKernel<int32_t (*)(const PostProcessParam&, const Rect&)>(
        form.info, &PostProcess, "PostProcess", nullptr, "", KORVANE_AVX2(PostProcess_AVX2), "PostProcess_AVX2");
    if (!post.simd) continue;
    for (int32_t shift : {0, 17999, -18000, 12345}) {
      // Every colour once per shift; a shift of 0 also in rows cut at odd places.
      const int rows = shift == 12345 ? 64 : h;
      Bytes a(colours.begin(), colours.begin() + static_cast<ptrdiff_t>(w) * rows * 4), b = a;
      SmartBuffer ia = View(a, w, rows), ib = View(b, w, rows);
      PostProcessParam p{&ia, value_lut, sat_lut, shift};
      ASSERT_EQ(PostProcess(p, Rect{0, 0, w, rows}), S_OK);
      p.img = &ib;
      if (shift == 12345) {
        for (int32_t y = 0; y < rows; ++y) ASSERT_EQ(post.fn(p, Rect{y % 13, y, w - y % 11, y + 1}), S_OK);
        for (int32_t y = 0; y < rows; ++y) ASSERT_EQ(PostProcess(p, Rect{0, y, y % 13, y + 1}), S_OK);
        for (int32_t y = 0; y < rows; ++y) ASSERT_EQ(PostProcess(p, Rect{w - y % 11, y, w, y + 1}), S_OK);
      } else {
        ASSERT_EQ(post.fn(p, Rect{0, 0, w, rows}), S_OK);
      }
      ASSERT_EQ(a, b) << post.name << " shift " << shift << ": " << KorvaneTest::FirstDifference(a, b, w);
    }
  }
}
