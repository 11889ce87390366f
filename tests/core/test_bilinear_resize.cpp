#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "TestSupport.h"
#include "core/BilinearResize.h"
#include "core/SmartBuffer.h"

using namespace Korvane;
using namespace KorvaneTest;

namespace {

// Owns the pixels of a test image and views them as a SmartBuffer.
struct Image {
  std::vector<uint8_t> pixels;
  SmartBuffer buf;
  Image(int w, int h, int fmt, uint8_t fill = 0) : pixels(static_cast<size_t>(w) * h * BytesPerPixel(fmt), fill) {
    buf = MakeSmartBufferView(pixels.data(), w, h, fmt);
  }
  float F(size_t i) const { float v; std::memcpy(&v, &pixels[i * 4], 4); return v; }
};

ResizeParam Param(const Image& src, const Image& dst) {
  return ResizeParam{src.buf, dst.buf, Rect{0, 0, src.buf.width, src.buf.height}};
}

// The whole destination with the form `info` picks (plain by default).
int32_t Resize(Runner& run, ResizeParam& p, const SystemInfo& info = Level(0)) {
  return RunBilinearResize(run.adapter, info, p, Rect{0, 0, p.dst.width, p.dst.height});
}

// The mapping written out directly: index, clamped neighbour and the 8-bit
// fraction (wrapped into a byte) of destination position d.
struct Tap { int i0, i1, f; };
Tap RefTap(int d, int dst_len, int src_len, int lo, int hi) {
  const float ratio = static_cast<float>(dst_len) / static_cast<float>(src_len);
  const float s = (static_cast<float>(d) - static_cast<float>(dst_len - 1) / 2.0f) / ratio +
                  static_cast<float>(src_len - 1) / 2.0f;
  const int t = static_cast<int>(std::trunc(s));
  const int i0 = std::min(std::max(t, lo), hi - 1);
  const int i1 = i0 + 1 < hi ? i0 + 1 : i0;
  const int f = static_cast<int>(std::trunc((s - static_cast<float>(t)) * 256.0f)) & 255;
  return {i0, i1, f};
}

int FloorShift8(int v) { return static_cast<int>(std::floor(v / 256.0)); }

// Slow reference of the byte resize over the whole destination.
std::vector<uint8_t> RefResize(const Image& src, int dw, int dh, Rect roi) {
  const int sw = src.buf.width, sh = src.buf.height, ch = ChannelCount(src.buf.pix_fmt);
  roi = Rect{std::max(roi.left, 0), std::max(roi.top, 0), std::min(roi.right, sw), std::min(roi.bottom, sh)};
  std::vector<uint8_t> out(static_cast<size_t>(dw) * dh * ch);
  for (int dy = 0; dy < dh; ++dy) {
    const Tap ty = RefTap(dy, dh, sh, roi.top, roi.bottom);
    for (int dx = 0; dx < dw; ++dx) {
      const Tap tx = RefTap(dx, dw, sw, roi.left, roi.right);
      for (int c = 0; c < ch; ++c) {
        auto px = [&](int x, int y) { return static_cast<int>(src.pixels[(y * sw + x) * ch + c]); };
        const int top = px(tx.i0, ty.i0) + FloorShift8((px(tx.i1, ty.i0) - px(tx.i0, ty.i0)) * tx.f);
        const int bot = px(tx.i0, ty.i1) + FloorShift8((px(tx.i1, ty.i1) - px(tx.i0, ty.i1)) * tx.f);
        out[(dy * dw + dx) * ch + c] = static_cast<uint8_t>(top + FloorShift8((bot - top) * ty.f));
      }
    }
  }
  return out;
}

// Synthetic sources: 0 a horizontal ramp, 1 a checkerboard, 2 noise.
void FillPattern(Image& img, int kind, uint32_t seed) {
  const int w = img.buf.width, ch = ChannelCount(img.buf.pix_fmt);
  if (kind == 2) return FillNoise(img.pixels.data(), img.pixels.size(), seed);
  for (size_t i = 0; i < img.pixels.size(); ++i) {
    const int px = static_cast<int>(i / ch), x = px % w, y = px / w, c = static_cast<int>(i % ch);
    img.pixels[i] = kind == 0 ? static_cast<uint8_t>((x * 255) / std::max(1, w - 1) ^ (c * 40))
                              : static_cast<uint8_t>(((x + y) & 1) ? 250 - c : 5 + c);
  }
}

}  // namespace

TEST(BilinearResize, PlainMatchesTheReferenceOnPatternsRatiosAndSourceRectangles) {
  Runner run;
  const struct { int sw, sh, dw, dh; } sizes[] = {
      {17, 9, 17, 9}, {16, 12, 8, 6}, {9, 7, 31, 20}, {1, 1, 5, 3}, {5, 3, 1, 1},
      {300, 2, 3, 7}, {3, 2, 250, 3}, {64, 64, 13, 97}, {40, 1, 7, 1}, {20, 12, 33, 17}};
  for (int fmt : {PIXEL_BGRA32, PIXEL_GRAY8})
    for (const auto& s : sizes)
      for (int kind = 0; kind < 3; ++kind) {
        Image src(s.sw, s.sh, fmt), dst(s.dw, s.dh, fmt, 77);
        FillPattern(src, kind, 5u + kind);
        // Whole image, an inner rectangle (samples stay inside it) and one
        // reaching past the image (clipped to it).
        for (Rect roi : {Rect{0, 0, s.sw, s.sh}, Rect{s.sw / 4, s.sh / 3, s.sw - s.sw / 5, s.sh - 1},
                         Rect{-5, -5, s.sw + 100, s.sh + 100}}) {
          if (roi.bottom <= roi.top) continue;
          ResizeParam p = Param(src, dst);
          p.src_roi = roi;
          ASSERT_EQ(Resize(run, p), S_OK);
          EXPECT_EQ(dst.pixels, RefResize(src, s.dw, s.dh, roi))
              << "fmt " << fmt << " " << s.sw << "x" << s.sh << " -> " << s.dw << "x" << s.dh << " pattern " << kind
              << " roi " << roi.left << "," << roi.top << "," << roi.right << "," << roi.bottom;
          if (s.sw == s.dw && s.sh == s.dh && roi.left <= 0) { EXPECT_EQ(dst.pixels, src.pixels); }  // a copy
        }
      }

  // Halving 4 -> 2: output 0 is the midpoint of sources 0 and 1 (fx = 128).
  // Doubling 2 -> 4: position -0.25 keeps the byte-wrapped fraction 192, so
  // output 0 leans towards source 1.
  Image row4(4, 1, PIXEL_GRAY8), half(2, 1, PIXEL_GRAY8), row2(2, 1, PIXEL_GRAY8), twice(4, 1, PIXEL_GRAY8);
  row4.pixels = {0, 100, 200, 40};
  row2.pixels = {0, 100};
  ResizeParam ph = Param(row4, half), pd = Param(row2, twice);
  ASSERT_EQ(Resize(run, ph), S_OK);
  ASSERT_EQ(Resize(run, pd), S_OK);
  EXPECT_EQ(half.pixels, (std::vector<uint8_t>{50, 200 + ((40 - 200) * 128 >> 8)}));
  EXPECT_EQ(twice.pixels[0], 75);
  EXPECT_EQ(twice.pixels[3], 100);
}

TEST(BilinearResize, WritesOnlyTheBandAndRefusesBadInput) {
  Runner run;
  Image src(10, 10, PIXEL_BGRA32), dst(24, 18, PIXEL_BGRA32, 0xEE);
  FillPattern(src, 0, 1);
  ResizeParam p = Param(src, dst);
  ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), p, Rect{5, 4, 11, 30}), S_OK);
  const std::vector<uint8_t> ref = RefResize(src, 24, 18, p.src_roi);
  for (int y = 0; y < 18; ++y)
    for (int x = 0; x < 24; ++x)
      for (int c = 0; c < 4; ++c) {
        const size_t i = (y * 24 + x) * 4 + c;
        ASSERT_EQ(dst.pixels[i], x >= 5 && x < 11 && y >= 4 ? ref[i] : 0xEE) << x << "," << y;
      }

  const struct { void (*edit)(ResizeParam&); int32_t want; } bad[] = {
      {[](ResizeParam& q) { q.src.data.reset(); }, E_POINTER},
      {[](ResizeParam& q) { q.dst.width = 0; }, E_FAIL},
      {[](ResizeParam& q) { q.src_roi = Rect{}; }, E_INVALIDARG},  // nothing may be sampled
      {[](ResizeParam& q) { q.src.stride = 10; }, E_INVALIDARG},   // rows shorter than their pixels
      {[](ResizeParam& q) { q.src.pix_fmt = q.dst.pix_fmt = PIXEL_GRAY16; }, E_NOTIMPL},
      {[](ResizeParam& q) { q.dst.pix_fmt = PIXEL_GRAY8; }, E_NOTIMPL},
  };
  for (const Form& form : Forms())
    for (const auto& b : bad) {
      ResizeParam q = p;
      b.edit(q);
      EXPECT_EQ(RunBilinearResize(run.adapter, form.info, q, Rect{0, 0, 24, 18}), b.want)
          << form.name << " " << &b - bad;
    }
  testing::internal::CaptureStderr();
  p.dst.data.reset();
  EXPECT_EQ(Resize(run, p), E_POINTER);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "[Korvane] m_thread_adapter.RunTaskByMultiThread(BilinearResize_8uc4, (void*)&param, "
                "nullptr, dst_roi) Error! - Return Code: 80004003"),
            std::string::npos);
}

// Every SIMD form against the plain one: widths on either side of the
// vector blocks (1 to 40 and a few long rows), reductions (which take the
// halving paths where pairs are consecutive) and enlargements, narrowed
// source rectangles, padded rows whose padding and guard bytes stay
// untouched, and an enlargement whose bands go out through non-temporal
// stores from unaligned row starts.
TEST(BilinearResize, SimdFormsMatchPlainOnAwkwardSizes) {
  Runner run;
  std::mt19937 rng(42);
  // The last: bands large enough to be written with non-temporal stores.
  std::vector<std::array<int, 4>> sizes = {{1001, 7, 333, 5}, {251, 3, 1023, 9}, {4, 4, 1, 1},
                                           {80, 6, 40, 3},    {86, 9, 43, 4},    {77, 3, 38, 1},
                                           {130, 5, 65, 2},   {98, 4, 49, 2},    {1203, 500, 2405, 1001}};
  for (int w = 1; w <= 40; ++w) {
    sizes.push_back({w, 1 + w % 5, 1 + static_cast<int>(rng() % 40), 1 + w % 7});
    sizes.push_back({1 + static_cast<int>(rng() % 40), 3, w, 2});
    sizes.push_back({2 * w, 4, w, 2});  // exact halvings
  }
  for (int fmt : {PIXEL_BGRA32, PIXEL_GRAY8})
    for (const auto& s : sizes) {
      const int pad = (s[0] + s[2]) % 4 == 0 ? 0 : 7;
      TestImage src(s[0], s[1], fmt, pad);
      src.FillNoise(static_cast<uint32_t>(s[0] * 131 + s[2]));
      // Alternate whole-image and narrowed source rectangles.
      Rect roi{0, 0, s[0], s[1]};
      if ((s[0] + s[2]) % 3 == 0 && s[0] > 2) roi = Rect{1, 0, s[0] - 1, s[1]};
      ExpectFormsMatchPlain(
          [&](const Form& form) {
            TestImage dst(s[2], s[3], fmt, pad + 5);
            ResizeParam p{SmartBufferView(src.buf), SmartBufferView(dst.buf), roi};
            EXPECT_EQ(Resize(run, p, form.info), S_OK);
            EXPECT_TRUE(dst.GuardsIntact()) << form.name;
            return dst.Packed();
          },
          "fmt " + std::to_string(fmt) + " " + std::to_string(s[0]) + "x" + std::to_string(s[1]) + " -> " +
              std::to_string(s[2]) + "x" + std::to_string(s[3]),
          s[2], ChannelCount(fmt));
    }
}

TEST(BilinearResize, SameResultForOneTwoAndEightWorkers) {
  for (int fmt : {PIXEL_BGRA32, PIXEL_GRAY8, PIXEL_FLOAT96})
    for (const Form& form : Forms())
      ExpectSameForWorkerCounts(
          [&](Runner& run) {
            Image src(57, 31, fmt), dst(101, 45, fmt);
            FillPattern(src, 2, 7);  // any bit patterns, for the floats too
            ResizeParam p = Param(src, dst);
            EXPECT_EQ(Resize(run, p, form.info), S_OK);
            return dst.pixels;
          },
          "fmt " + std::to_string(fmt) + " " + form.name);
}

TEST(BilinearResizeFloat, InterpolatesInFloatAndClampsAtTheEdges) {
  Runner run;
  // A linear ramp stays linear inside, and is held flat outside the source centres.
  Image src(4, 2, PIXEL_FLOAT96), dst(8, 3, PIXEL_FLOAT96), same(4, 2, PIXEL_FLOAT96);
  for (size_t i = 0; i < 4 * 2 * 3; ++i) {
    const float v = static_cast<float>(i / 3 % 4) * 0.25f + static_cast<float>(i % 3);
    std::memcpy(&src.pixels[i * 4], &v, 4);
  }
  ResizeParam p = Param(src, dst), ps = Param(src, same);
  ASSERT_EQ(Resize(run, p), S_OK);
  for (size_t i = 0; i < 8 * 3 * 3; ++i) {
    const float sx = std::min(3.0f, std::max(0.0f, (static_cast<float>(i / 3 % 8) - 3.5f) / 2.0f + 1.5f));
    EXPECT_NEAR(dst.F(i), sx * 0.25f + static_cast<float>(i % 3), 1e-6f) << i;
  }
  ASSERT_EQ(Resize(run, ps), S_OK);
  EXPECT_EQ(same.pixels, src.pixels);  // same size copies exactly
}

TEST(BilinearSample, WeightsNeighboursAndBordersAndRefusesPositionsOffTheImage) {
  // The four weights of arbitrary fractions against the formula written out,
  // on a 7x5 image in both forms; the last column and row take themselves
  // as the right and lower neighbours, and the 8uc4 form writes alpha 255.
  std::vector<uint8_t> bgra(7 * 5 * 4), gray(7 * 5);
  FillNoise(bgra.data(), bgra.size(), 2);
  FillNoise(gray.data(), gray.size(), 3);
  std::mt19937 rng(9);
  for (int i = 0; i < 2000; ++i) {
    const float x = static_cast<float>(rng() % 7000) / 1000.0f, y = static_cast<float>(rng() % 5000) / 1000.0f;
    uint8_t g = 0, px[4] = {};
    ASSERT_EQ(BilinearSample_8uc1(gray.data(), &g, 5, 7, 7, y, x), S_OK);
    ASSERT_EQ(BilinearSample_8uc4(bgra.data(), px, 5, 7, 28, y, x), S_OK);
    const int x0 = static_cast<int>(x), y0 = static_cast<int>(y), x1 = std::min(x0 + 1, 6), y1 = std::min(y0 + 1, 4);
    const float fx = x - x0, fy = y - y0;
    const int tr = static_cast<int>((1 - fy) * fx * 256 + 0.5f), bl = static_cast<int>(fy * (1 - fx) * 256 + 0.5f);
    const int tl = static_cast<int>((1 - fy) * (1 - fx) * 256 + 0.5f), br = std::max(0, 256 - tr - bl - tl);
    auto want = [&](const std::vector<uint8_t>& img, int ch, int c) {
      auto at = [&](int xx, int yy) { return img[(yy * 7 + xx) * ch + c]; };
      return (at(x1, y1) * br + at(x0, y1) * bl + at(x1, y0) * tr + at(x0, y0) * tl) >> 8;
    };
    ASSERT_EQ(g, want(gray, 1, 0)) << x << "," << y;
    for (int c = 0; c < 3; ++c) ASSERT_EQ(px[c], want(bgra, 4, c)) << x << "," << y << " channel " << c;
    ASSERT_EQ(px[3], 255);
  }
  uint8_t out[4] = {};
  EXPECT_EQ(BilinearSample_8uc4(nullptr, out, 5, 7, 28, 0, 0), E_POINTER);
  EXPECT_EQ(BilinearSample_8uc1(gray.data(), nullptr, 5, 7, 7, 0, 0), E_POINTER);
  // Positions off the image are refused without reading it.
  EXPECT_EQ(BilinearSample_8uc1(gray.data(), out, 5, 7, 7, 0.0f, 7.0f), E_INVALIDARG);
  EXPECT_EQ(BilinearSample_8uc1(gray.data(), out, 5, 7, 7, -3.0f, 1.0f), E_INVALIDARG);
  EXPECT_EQ(BilinearSample_8uc4(bgra.data(), out, 5, 7, 28, NAN, 1.0f), E_INVALIDARG);
}
