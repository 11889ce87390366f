#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/BilinearResize.h"
#include "core/Simd.h"
#include "core/ThreadPool.h"

using namespace Korvane;

namespace {

struct Runner {
  CThreadPool pool;
  CThreadAdapter adapter;
  explicit Runner(int workers = 2) {
    pool.Create(workers);
    adapter.Init(&pool);
  }
};

SystemInfo Level(int simd) {
  SystemInfo info;
  info.simd_level = simd;
  return info;
}

std::vector<uint8_t> Noise(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

// Owns the pixels of a test image and views them as a SmartBuffer.
struct Image {
  std::vector<uint8_t> pixels;
  SmartBuffer buf;
  Image(int w, int h, int fmt, uint8_t fill = 0)
      : pixels(static_cast<size_t>(w) * h * BytesPerPixel(fmt), fill) {
    buf = MakeSmartBufferView(pixels.data(), w, h, fmt);
  }
};

ResizeParam Param(const Image& src, const Image& dst) {
  ResizeParam p;
  p.src = src.buf;
  p.dst = dst.buf;
  p.src_roi = Rect{0, 0, src.buf.width, src.buf.height};
  return p;
}

// The mapping written out directly: index, clamped neighbour and the 8-bit
// fraction (wrapped into a byte) of destination position d.
struct Tap {
  int i0, i1, f;
};
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
std::vector<uint8_t> RefResize(const Image& src, int dw, int dh, int ch, Rect roi) {
  const int sw = src.buf.width, sh = src.buf.height;
  roi.left = std::max(roi.left, 0);
  roi.top = std::max(roi.top, 0);
  roi.right = std::min(roi.right, sw);
  roi.bottom = std::min(roi.bottom, sh);
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

// Synthetic sources: horizontal ramp, checkerboard, noise.
void FillPattern(Image& img, int kind, uint32_t seed) {
  const int w = img.buf.width, ch = ChannelCount(img.buf.pix_fmt);
  if (kind == 2) {
    img.pixels = Noise(img.pixels.size(), seed);
    img.buf.data = std::shared_ptr<unsigned char[]>(img.pixels.data(), [](unsigned char*) {});
    return;
  }
  for (size_t i = 0; i < img.pixels.size(); ++i) {
    const int px = static_cast<int>(i / ch), x = px % w, y = px / w, c = static_cast<int>(i % ch);
    img.pixels[i] = kind == 0 ? static_cast<uint8_t>((x * 255) / std::max(1, w - 1) ^ (c * 40))
                              : static_cast<uint8_t>(((x + y) & 1) ? 250 - c : 5 + c);
  }
}

}  // namespace

TEST(BilinearResize, PlainMatchesTheReferenceOnPatternsAndExtremeRatios) {
  Runner run;
  const struct { int sw, sh, dw, dh; } sizes[] = {
      {17, 9, 17, 9}, {16, 12, 8, 6}, {9, 7, 31, 20}, {1, 1, 5, 3}, {5, 3, 1, 1},
      {300, 2, 3, 7}, {3, 2, 250, 3}, {64, 64, 13, 97}, {40, 1, 7, 1}};
  for (int fmt : {PIXEL_BGRA32, PIXEL_GRAY8}) {
    const int ch = ChannelCount(fmt);
    for (const auto& s : sizes) {
      for (int kind = 0; kind < 3; ++kind) {
        Image src(s.sw, s.sh, fmt), dst(s.dw, s.dh, fmt, 77);
        FillPattern(src, kind, 5u + kind);
        ResizeParam p = Param(src, dst);
        ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), p, Rect{0, 0, s.dw, s.dh}), S_OK);
        EXPECT_EQ(dst.pixels, RefResize(src, s.dw, s.dh, ch, p.src_roi))
            << "fmt " << fmt << " " << s.sw << "x" << s.sh << " -> " << s.dw << "x" << s.dh
            << " pattern " << kind;
      }
    }
  }
}

TEST(BilinearResize, SameSizeCopiesAndTheNamedBorderFractions) {
  Runner run;
  Image src(13, 5, PIXEL_BGRA32), same(13, 5, PIXEL_BGRA32, 1);
  FillPattern(src, 2, 9);
  ResizeParam p = Param(src, same);
  ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), p, Rect{0, 0, 13, 5}), S_OK);
  EXPECT_EQ(same.pixels, src.pixels);

  // Halving 4 -> 2: output 0 is the midpoint of sources 0 and 1 (fx = 128).
  Image row4(4, 1, PIXEL_GRAY8), half(2, 1, PIXEL_GRAY8);
  row4.pixels = {0, 100, 200, 40};
  ResizeParam ph = Param(row4, half);
  ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), ph, Rect{0, 0, 2, 1}), S_OK);
  EXPECT_EQ(half.pixels[0], 50);
  EXPECT_EQ(half.pixels[1], 200 + ((40 - 200) * 128 >> 8));

  // Doubling 2 -> 4: position -0.25 keeps the byte-wrapped fraction 192, so
  // output 0 leans towards source 1.
  Image row2(2, 1, PIXEL_GRAY8), twice(4, 1, PIXEL_GRAY8);
  row2.pixels = {0, 100};
  ResizeParam pd = Param(row2, twice);
  ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), pd, Rect{0, 0, 4, 1}), S_OK);
  EXPECT_EQ(twice.pixels[0], 75);
  EXPECT_EQ(twice.pixels[3], 100);
}

TEST(BilinearResize, SamplesStayInsideTheSourceRectangle) {
  Runner run;
  for (int fmt : {PIXEL_BGRA32, PIXEL_GRAY8}) {
    Image src(20, 12, fmt), dst(33, 17, fmt);
    FillPattern(src, 2, 3);
    ResizeParam p = Param(src, dst);
    p.src_roi = Rect{4, 3, 11, 9};
    ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), p, Rect{0, 0, 33, 17}), S_OK);
    const std::vector<uint8_t> first = dst.pixels;
    EXPECT_EQ(first, RefResize(src, 33, 17, ChannelCount(fmt), p.src_roi));
    // Changing everything outside the rectangle changes nothing.
    const int ch = ChannelCount(fmt);
    for (int y = 0; y < 12; ++y)
      for (int x = 0; x < 20; ++x)
        if (x < 4 || x >= 11 || y < 3 || y >= 9)
          for (int c = 0; c < ch; ++c) src.pixels[(y * 20 + x) * ch + c] ^= 0xA5;
    ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), p, Rect{0, 0, 33, 17}), S_OK);
    EXPECT_EQ(dst.pixels, first);
    // A rectangle reaching past the image is clipped to it.
    p.src_roi = Rect{-5, -5, 100, 100};
    ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), p, Rect{0, 0, 33, 17}), S_OK);
    EXPECT_EQ(dst.pixels, RefResize(src, 33, 17, ch, Rect{0, 0, 20, 12}));
  }
}

TEST(BilinearResize, WritesOnlyTheBandAndRefusesBadInput) {
  Runner run;
  Image src(10, 10, PIXEL_BGRA32), dst(24, 18, PIXEL_BGRA32, 0xEE);
  FillPattern(src, 0, 1);
  ResizeParam p = Param(src, dst);
  ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), p, Rect{5, 4, 11, 30}), S_OK);
  const std::vector<uint8_t> ref = RefResize(src, 24, 18, 4, p.src_roi);
  for (int y = 0; y < 18; ++y)
    for (int x = 0; x < 24; ++x)
      for (int c = 0; c < 4; ++c) {
        const size_t i = (y * 24 + x) * 4 + c;
        const bool inside = x >= 5 && x < 11 && y >= 4;
        ASSERT_EQ(dst.pixels[i], inside ? ref[i] : 0xEE) << x << "," << y;
      }

  ResizeParam bad = p;
  bad.src.data.reset();
  EXPECT_EQ(RunBilinearResize(run.adapter, Level(0), bad, Rect{0, 0, 24, 18}), E_POINTER);
  bad = p;
  bad.dst.width = 0;
  EXPECT_EQ(RunBilinearResize(run.adapter, Level(0), bad, Rect{0, 0, 24, 18}), E_FAIL);
  bad = p;
  bad.src_roi = Rect{};  // nothing may be sampled
  EXPECT_EQ(RunBilinearResize(run.adapter, Level(0), bad, Rect{0, 0, 24, 18}), E_INVALIDARG);
  bad = p;
  bad.src.stride = 10;  // rows shorter than the pixels they claim
  EXPECT_EQ(RunBilinearResize(run.adapter, Level(0), bad, Rect{0, 0, 24, 18}), E_INVALIDARG);
  bad = p;
  bad.src.pix_fmt = bad.dst.pix_fmt = PIXEL_GRAY16;
  EXPECT_EQ(RunBilinearResize(run.adapter, Level(0), bad, Rect{0, 0, 24, 18}), E_NOTIMPL);
  bad = p;
  bad.dst.pix_fmt = PIXEL_GRAY8;
  EXPECT_EQ(RunBilinearResize(run.adapter, Level(0), bad, Rect{0, 0, 24, 18}), E_NOTIMPL);

  testing::internal::CaptureStderr();
  bad = p;
  bad.dst.data.reset();
  EXPECT_EQ(RunBilinearResize(run.adapter, Level(0), bad, Rect{0, 0, 24, 18}), E_POINTER);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "[Korvane] m_thread_adapter.RunTaskByMultiThread(BilinearResize_8uc4, (void*)&param, "
                "nullptr, dst_roi) Error! - Return Code: 80004003"),
            std::string::npos);
}

TEST(BilinearResize, Sse4MatchesPlainOnAwkwardSizes) {
  if (!KORVANE_HAVE_SSE41) GTEST_SKIP() << "built without SSE4.1";
  Runner run;
  std::mt19937 rng(42);
  std::vector<std::array<int, 4>> sizes;
  for (int w = 1; w <= 40; ++w) sizes.push_back({w, 1 + w % 5, 1 + static_cast<int>(rng() % 40), 1 + w % 7});
  for (int w = 1; w <= 40; ++w) sizes.push_back({1 + static_cast<int>(rng() % 40), 3, w, 2});
  sizes.push_back({1001, 7, 333, 5});
  sizes.push_back({251, 3, 1023, 9});
  sizes.push_back({4, 4, 1, 1});
  sizes.push_back({80, 6, 40, 3});   // exact halving: consecutive neighbour pairs
  sizes.push_back({86, 9, 43, 4});
  sizes.push_back({77, 3, 38, 1});
  for (int fmt : {PIXEL_BGRA32, PIXEL_GRAY8}) {
    for (const auto& s : sizes) {
      Image src(s[0], s[1], fmt), plain(s[2], s[3], fmt, 0x11), sse(s[2], s[3], fmt, 0xEE);
      FillPattern(src, 2, static_cast<uint32_t>(s[0] * 131 + s[2]));
      ResizeParam pp = Param(src, plain), ps = Param(src, sse);
      // Alternate whole-image and narrowed source rectangles.
      if ((s[0] + s[2]) % 3 == 0 && s[0] > 2) pp.src_roi = ps.src_roi = Rect{1, 0, s[0] - 1, s[1]};
      ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), pp, Rect{0, 0, s[2], s[3]}), S_OK);
      ASSERT_EQ(RunBilinearResize(run.adapter, Level(SIMD_SSE41), ps, Rect{0, 0, s[2], s[3]}), S_OK);
      ASSERT_EQ(plain.pixels, sse.pixels)
          << "fmt " << fmt << " " << s[0] << "x" << s[1] << " -> " << s[2] << "x" << s[3];
    }
  }
}

TEST(BilinearResize, SameResultForOneTwoAndEightWorkers) {
  for (int fmt : {PIXEL_BGRA32, PIXEL_GRAY8, PIXEL_FLOAT96}) {
    for (int simd : {0, int{SIMD_SSE41}}) {
      std::vector<std::vector<uint8_t>> results;
      for (int workers : {1, 2, 8}) {
        Runner run(workers);
        Image src(57, 31, fmt), dst(101, 45, fmt);
        if (fmt == PIXEL_FLOAT96) {
          for (size_t i = 0; i < src.pixels.size() / 4; ++i) {
            const float v = static_cast<float>(i % 97) / 7.0f;
            std::memcpy(&src.pixels[i * 4], &v, 4);
          }
        } else {
          FillPattern(src, 2, 7);
        }
        ResizeParam p = Param(src, dst);
        ASSERT_EQ(RunBilinearResize(run.adapter, Level(simd), p, Rect{0, 0, 101, 45}), S_OK);
        results.push_back(dst.pixels);
      }
      EXPECT_EQ(results[0], results[1]) << fmt;
      EXPECT_EQ(results[0], results[2]) << fmt;
    }
  }
}

TEST(BilinearResizeFloat, InterpolatesInFloatAndClampsAtTheEdges) {
  Runner run;
  auto at = [](const Image& img, int x, int y, int c) {
    float v;
    std::memcpy(&v, &img.pixels[((y * img.buf.width + x) * 3 + c) * 4], 4);
    return v;
  };
  // A linear ramp stays linear inside, and is held flat outside the source centres.
  Image src(4, 2, PIXEL_FLOAT96), dst(8, 3, PIXEL_FLOAT96);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 4; ++x)
      for (int c = 0; c < 3; ++c) {
        const float v = static_cast<float>(x) * 0.25f + static_cast<float>(c);
        std::memcpy(&src.pixels[((y * 4 + x) * 3 + c) * 4], &v, 4);
      }
  ResizeParam p = Param(src, dst);
  ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), p, Rect{0, 0, 8, 3}), S_OK);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 8; ++x)
      for (int c = 0; c < 3; ++c) {
        const float sx = std::min(3.0f, std::max(0.0f, (x - 3.5f) / 2.0f + 1.5f));
        EXPECT_NEAR(at(dst, x, y, c), sx * 0.25f + c, 1e-6f) << x << "," << y << "," << c;
      }
  // Same size copies exactly.
  Image same(4, 2, PIXEL_FLOAT96);
  ResizeParam ps = Param(src, same);
  ASSERT_EQ(RunBilinearResize(run.adapter, Level(0), ps, Rect{0, 0, 4, 2}), S_OK);
  EXPECT_EQ(same.pixels, src.pixels);
}

TEST(BilinearSample, WeightsNeighboursAndBorders) {
  // 3x2 BGRA image; alpha is written as 255 whatever the source holds.
  std::vector<uint8_t> img(3 * 2 * 4);
  for (size_t i = 0; i < img.size(); ++i) img[i] = static_cast<uint8_t>(i * 10);
  uint8_t out[4] = {};
  ASSERT_EQ(BilinearSample_8uc4(img.data(), out, 2, 3, 12, 0.0f, 1.0f), S_OK);
  EXPECT_EQ(out[0], img[4]);
  EXPECT_EQ(out[2], img[6]);
  EXPECT_EQ(out[3], 255);
  // Half way between columns 0 and 1 and rows 0 and 1: each weight 64.
  ASSERT_EQ(BilinearSample_8uc4(img.data(), out, 2, 3, 12, 0.5f, 0.5f), S_OK);
  EXPECT_EQ(out[1], (img[1] + img[5] + img[13] + img[17]) * 64 >> 8);
  // The last column and row take themselves as the right and lower neighbours.
  ASSERT_EQ(BilinearSample_8uc4(img.data(), out, 2, 3, 12, 1.7f, 2.6f), S_OK);
  EXPECT_EQ(out[0], img[20]);

  // The four weights of arbitrary fractions, against the formula written out.
  std::vector<uint8_t> gray = Noise(7 * 5, 3);
  std::mt19937 rng(9);
  for (int i = 0; i < 2000; ++i) {
    const float x = static_cast<float>(rng() % 7000) / 1000.0f, y = static_cast<float>(rng() % 5000) / 1000.0f;
    uint8_t g = 0;
    ASSERT_EQ(BilinearSample_8uc1(gray.data(), &g, 5, 7, 7, y, x), S_OK);
    const int x0 = static_cast<int>(x), y0 = static_cast<int>(y);
    const float fx = x - x0, fy = y - y0;
    const int tr = static_cast<int>((1 - fy) * fx * 256 + 0.5f), bl = static_cast<int>(fy * (1 - fx) * 256 + 0.5f);
    const int tl = static_cast<int>((1 - fy) * (1 - fx) * 256 + 0.5f), br = std::max(0, 256 - tr - bl - tl);
    const int x1 = std::min(x0 + 1, 6), y1 = std::min(y0 + 1, 4);
    const int want = (gray[y1 * 7 + x1] * br + gray[y1 * 7 + x0] * bl + gray[y0 * 7 + x1] * tr +
                      gray[y0 * 7 + x0] * tl) >> 8;
    ASSERT_EQ(g, want) << x << "," << y;
  }

  EXPECT_EQ(BilinearSample_8uc4(nullptr, out, 2, 3, 12, 0, 0), E_POINTER);
  EXPECT_EQ(BilinearSample_8uc1(gray.data(), nullptr, 5, 7, 7, 0, 0), E_POINTER);
  // Positions off the image are refused without reading it.
  EXPECT_EQ(BilinearSample_8uc1(gray.data(), out, 5, 7, 7, 0.0f, 7.0f), E_INVALIDARG);
  EXPECT_EQ(BilinearSample_8uc1(gray.data(), out, 5, 7, 7, -3.0f, 1.0f), E_INVALIDARG);
  EXPECT_EQ(BilinearSample_8uc4(img.data(), out, 2, 3, 12, NAN, 1.0f), E_INVALIDARG);
}
