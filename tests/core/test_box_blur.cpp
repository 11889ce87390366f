#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/BoxBlur.h"
#include "core/BoxBlurDetail.h"
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

// A test image with its pixels, in any of the blur's formats.
struct Image {
  int w, h, fmt;
  std::vector<uint8_t> pixels;
  Image(int w_, int h_, int fmt_) : w(w_), h(h_), fmt(fmt_), pixels(size_t(w_) * h_ * BytesPerPixel(fmt_)) {}
  template <class T>
  T Get(size_t i) const {
    T v;
    std::memcpy(&v, &pixels[i * sizeof(T)], sizeof(T));
    return v;
  }
  template <class T>
  void Set(size_t i, T v) {
    std::memcpy(&pixels[i * sizeof(T)], &v, sizeof(T));
  }
  BoxBlurParam Param(int radius, const uint8_t* mask = nullptr) {
    BoxBlurParam p;
    p.src = MakeImageBuffer(pixels.data(), w, h, fmt);
    p.radius = radius;
    p.mask = mask;
    return p;
  }
};

// Random content. Float samples are multiples of 1/64 below 64 so every
// window sum is exact and the reference's plain sum agrees bit for bit with
// the kernels' running sums; integers span the whole 32-bit range.
Image Random(int w, int h, int fmt, uint32_t seed) {
  Image img(w, h, fmt);
  std::mt19937 rng(seed);
  const size_t samples = img.pixels.size() / (fmt == PIXEL_BGRA32 || fmt == PIXEL_GRAY8 ? 1 : 4);
  for (size_t i = 0; i < samples; ++i) {
    if (fmt == PIXEL_FLOAT32 || fmt == PIXEL_FLOAT96) {
      img.Set<float>(i, static_cast<float>(static_cast<int>(rng() % 8192) - 4096) / 64.0f);
    } else if (fmt == PIXEL_INT32) {
      img.Set<int32_t>(i, static_cast<int32_t>(rng()));
    } else {
      img.pixels[i] = static_cast<uint8_t>(rng());
    }
  }
  return img;
}

// The slow, obvious blur of one pass: each sample becomes the mean of the
// window [p - r + 1, p + r - 1] cut to the line, rounded per format; the
// masked form then mixes it with the original by mask / 255.
Image Reference(const Image& in, int r, bool rows, const uint8_t* mask = nullptr) {
  Image out = in;
  if (r <= 1) return out;
  const int ch = in.fmt == PIXEL_BGRA32 ? 3 : ChannelCount(in.fmt);
  const int ps = in.fmt == PIXEL_BGRA32 ? 4 : ch;
  const int len = rows ? in.w : in.h, lines = rows ? in.h : in.w;
  for (int line = 0; line < lines; ++line) {
    for (int p = 0; p < len; ++p) {
      const int lo = std::max(0, p - r + 1), hi = std::min(len - 1, p + r - 1), n = hi - lo + 1;
      auto index = [&](int q, int c) {
        const int x = rows ? q : line, y = rows ? line : q;
        return (size_t(y) * in.w + x) * ps + c;
      };
      for (int c = 0; c < ch; ++c) {
        if (in.fmt == PIXEL_FLOAT32 || in.fmt == PIXEL_FLOAT96) {
          double s = 0;
          for (int q = lo; q <= hi; ++q) s += in.Get<float>(index(q, c));
          out.Set<float>(index(p, c), static_cast<float>(s * (1.0 / n)));
        } else if (in.fmt == PIXEL_INT32) {
          int64_t s = 0;
          for (int q = lo; q <= hi; ++q) s += in.Get<int32_t>(index(q, c));
          const int64_t num = 2 * s + n, den = 2 * int64_t{n};
          out.Set<int32_t>(index(p, c), static_cast<int32_t>(num >= 0 ? num / den : -((-num + den - 1) / den)));
        } else {
          int64_t s = 0;
          for (int q = lo; q <= hi; ++q) s += in.pixels[index(q, c)];
          int v = static_cast<int>(std::min(255.0, std::trunc(static_cast<double>(s) / n + 0.5)));
          if (mask) {
            const int x = rows ? p : line, y = rows ? line : p, m = mask[y * in.w + x];
            const double mixed = (in.pixels[index(p, c)] * (255.0 - m) + v * double(m)) / 255.0;
            v = static_cast<int>(std::floor(mixed + 0.5));
          }
          out.pixels[index(p, c)] = static_cast<uint8_t>(v);
        }
      }
    }
  }
  return out;
}

int32_t RunPass(Runner& run, int simd, BoxBlurParam& p, bool rows, Rect band) {
  ThreadTask task = rows ? PickKernel<ThreadTask>(Level(simd), BoxBlurH, KORVANE_SSE41(BoxBlurH_SSE))
                         : PickKernel<ThreadTask>(Level(simd), BoxBlurV, KORVANE_SSE41(BoxBlurV_SSE));
  return run.adapter.RunTaskByMultiThread(task, &p, nullptr, band, rows);
}

const int kFormats[] = {PIXEL_BGRA32, PIXEL_GRAY8, PIXEL_FLOAT32, PIXEL_FLOAT96, PIXEL_INT32};

}  // namespace

TEST(BoxBlurDivider, ExactRoundingForEveryByteSum) {
  using boxblur_detail::Divide8;
  using boxblur_detail::MakeRecip8;
  for (uint32_t n = 1; n <= 300; ++n) {
    const auto rc = MakeRecip8(n);
    for (uint32_t s = 0; s <= 255 * n; ++s) ASSERT_EQ(Divide8(s, rc), (s + n / 2) / n) << s << "/" << n;
  }
  // Large windows: the sums next to every rounding boundary.
  for (uint32_t n : {1023u, 4095u, 65537u, 1000003u, 2097151u, 2097152u}) {
    const auto rc = MakeRecip8(n);
    for (uint32_t q = 0; q <= 255; ++q)
      for (int64_t d = -2; d <= 2; ++d) {
        const int64_t s = int64_t{q} * n - n / 2 + d;
        if (s < 0 || s > int64_t{255} * n) continue;
        ASSERT_EQ(Divide8(static_cast<uint32_t>(s), rc), (s + n / 2) / n) << s << "/" << n;
      }
  }
  for (uint32_t o = 0; o < 256; ++o)
    for (uint32_t b = 0; b < 256; ++b)
      for (uint32_t m = 0; m < 256; m += 3)
        ASSERT_EQ(boxblur_detail::MixByMask(o, b, m), (o * (255 - m) + b * m + 127) / 255);
}

TEST(BoxBlur, PlainMatchesTheReferenceForEveryVariantAndRadius) {
  Runner run;
  const struct { int w, h; } sizes[] = {{23, 9}, {1, 5}, {7, 1}, {40, 33}};
  for (int fmt : kFormats) {
    for (const auto& s : sizes) {
      for (int r : {2, 3, 5, 12, 20, 21, 100}) {
        for (bool rows : {true, false}) {
          Image img = Random(s.w, s.h, fmt, static_cast<uint32_t>(s.w * 7 + r));
          const Image want = Reference(img, r, rows);
          BoxBlurParam p = img.Param(r);
          ASSERT_EQ(RunPass(run, 0, p, rows, Rect{0, 0, s.w, s.h}), S_OK);
          ASSERT_EQ(img.pixels, want.pixels)
              << "fmt " << fmt << " " << s.w << "x" << s.h << " r " << r << (rows ? " H" : " V");
        }
      }
    }
  }
}

TEST(BoxBlur, MaskMixesTheBlurByMaskWeight) {
  Runner run;
  for (bool rows : {true, false}) {
    for (int r : {2, 4, 30}) {
      Image img = Random(19, 14, PIXEL_BGRA32, 11u + r);
      std::vector<uint8_t> mask(19 * 14);
      for (size_t i = 0; i < mask.size(); ++i) mask[i] = static_cast<uint8_t>(i % 5 == 0 ? 0 : i % 7 == 0 ? 255 : i * 37);
      const Image want = Reference(img, r, rows, mask.data());
      BoxBlurParam p = img.Param(r, mask.data());
      ASSERT_EQ(RunPass(run, 0, p, rows, Rect{0, 0, 19, 14}), S_OK);
      ASSERT_EQ(img.pixels, want.pixels) << "r " << r << (rows ? " H" : " V");
    }
  }
}

TEST(BoxBlur, RadiusZeroOrOneChangesNothingAndBadRecordsAreRefused) {
  Runner run;
  for (int fmt : kFormats) {
    for (int r : {0, 1}) {
      Image img = Random(9, 6, fmt, 3);
      const auto before = img.pixels;
      BoxBlurParam p = img.Param(r);
      EXPECT_EQ(RunBoxBlur(run.adapter, Level(0), p, Rect{0, 0, 9, 6}, 2), S_OK);
      EXPECT_EQ(RunBoxBlur(run.adapter, Level(SIMD_SSE41), p, Rect{0, 0, 9, 6}, 2), S_OK);
      EXPECT_EQ(img.pixels, before) << fmt;
    }
  }
  Image img = Random(9, 6, PIXEL_BGRA32, 3);
  for (int simd : {0, int{SIMD_SSE41}}) {
    for (bool rows : {true, false}) {
      BoxBlurParam p = img.Param(-1);
      EXPECT_EQ(RunPass(run, simd, p, rows, Rect{0, 0, 9, 6}), E_INVALIDARG);
      p = img.Param(3);
      p.src.data = nullptr;
      EXPECT_EQ(RunPass(run, simd, p, rows, Rect{0, 0, 9, 6}), E_POINTER);
      p = img.Param(3);
      p.src.pix_fmt = PIXEL_GRAY16;
      EXPECT_EQ(RunPass(run, simd, p, rows, Rect{0, 0, 9, 6}), E_NOTIMPL);
      const uint8_t mask[54] = {};
      p = img.Param(3, mask);
      p.src.pix_fmt = PIXEL_GRAY8;  // only BGRA has a masked form
      EXPECT_EQ(RunPass(run, simd, p, rows, Rect{0, 0, 9, 6}), E_NOTIMPL);
      p = img.Param(3);
      p.src.stride = 20;  // shorter than the row
      EXPECT_EQ(RunPass(run, simd, p, rows, Rect{0, 0, 9, 6}), E_INVALIDARG);
    }
  }
  testing::internal::CaptureStderr();
  BoxBlurParam p = img.Param(-2);
  EXPECT_EQ(RunBoxBlur(run.adapter, Level(0), p, Rect{0, 0, 9, 6}), E_INVALIDARG);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "[Korvane] m_thread_adapter.RunTaskByMultiThread(BoxBlurH, (void*)&boxblur_param, "
                "nullptr, roi) Error! - Return Code: 80070057"),
            std::string::npos);
}

TEST(BoxBlur, PartialBandStillBlursWholeLinesAndOnlyItsOwn) {
  Runner run(3);
  const Image orig = Random(31, 27, PIXEL_GRAY8, 8);
  for (bool rows : {true, false}) {
    Image img = orig;
    const Image full = Reference(img, 4, rows);
    BoxBlurParam p = img.Param(4);
    // The band covers a few columns and rows; the pass still treats whole lines.
    const Rect band = rows ? Rect{10, 5, 12, 20} : Rect{6, 13, 22, 14};
    ASSERT_EQ(RunPass(run, 0, p, rows, band), S_OK);
    for (int y = 0; y < 27; ++y)
      for (int x = 0; x < 31; ++x) {
        const bool in = rows ? (y >= 5 && y < 20) : (x >= 6 && x < 22);
        const size_t i = size_t(y) * 31 + x;
        ASSERT_EQ(img.pixels[i], in ? full.pixels[i] : orig.pixels[i]);
      }
  }
}

TEST(BoxBlur, AlphaSurvivesAndConstantImagesStayConstant) {
  Runner run;
  for (int simd : {0, int{SIMD_SSE41}}) {
    Image img = Random(37, 29, PIXEL_BGRA32, 4);
    std::vector<uint8_t> alpha;
    for (size_t i = 3; i < img.pixels.size(); i += 4) alpha.push_back(img.pixels[i]);
    BoxBlurParam p = img.Param(6);
    ASSERT_EQ(RunBoxBlur(run.adapter, Level(simd), p, Rect{0, 0, 37, 29}, 3), S_OK);
    for (size_t i = 3, k = 0; i < img.pixels.size(); i += 4, ++k) ASSERT_EQ(img.pixels[i], alpha[k]);

    for (int fmt : kFormats) {
      Image flat(26, 17, fmt);
      const size_t samples = flat.pixels.size() / (BytesPerPixel(fmt) / ChannelCount(fmt));
      for (size_t i = 0; i < samples; ++i) {
        if (fmt == PIXEL_FLOAT32 || fmt == PIXEL_FLOAT96) flat.Set<float>(i, 0.1f);
        else if (fmt == PIXEL_INT32) flat.Set<int32_t>(i, -123456789);
        else flat.pixels[i] = 201;
      }
      const auto before = flat.pixels;
      for (int r : {2, 9, 13, 60}) {
        BoxBlurParam fp = flat.Param(r);
        ASSERT_EQ(RunBoxBlur(run.adapter, Level(simd), fp, Rect{0, 0, 26, 17}, 2), S_OK);
        ASSERT_EQ(flat.pixels, before) << "fmt " << fmt << " r " << r;
      }
    }
  }
}

TEST(BoxBlur, WindowsWiderThanTheImageAverageTheWholeLine) {
  Runner run;
  for (int simd : {0, int{SIMD_SSE41}}) {
    for (int r : {4, 5, 6, 1000, 1 << 30}) {
      Image img = Random(5, 3, PIXEL_GRAY8, 2);
      const Image want = Reference(Reference(img, std::min(r, 100), true), std::min(r, 100), false);
      BoxBlurParam p = img.Param(r);
      ASSERT_EQ(RunBoxBlur(run.adapter, Level(simd), p, Rect{0, 0, 5, 3}), S_OK);
      EXPECT_EQ(img.pixels, want.pixels) << r;
    }
    // Radius 1000 on a 5-pixel row: every pixel is the row's mean.
    Image row(5, 1, PIXEL_GRAY8);
    row.pixels = {0, 10, 20, 30, 41};
    BoxBlurParam p = row.Param(1000);
    ASSERT_EQ(RunPass(run, simd, p, true, Rect{0, 0, 5, 1}), S_OK);
    EXPECT_EQ(row.pixels, std::vector<uint8_t>(5, 20));
  }
}

TEST(BoxBlur, SseMatchesPlainBitExactOnAwkwardSizes) {
  if (!KORVANE_HAVE_SSE41) GTEST_SKIP() << "built without SSE4.1";
  Runner run;
  std::vector<std::pair<int, int>> sizes;
  for (int w = 1; w <= 40; ++w) sizes.push_back({w, 1 + (w * 7) % 23});
  sizes.push_back({333, 5});
  sizes.push_back({6, 301});
  sizes.push_back({257, 129});
  for (int fmt : {0, 2, 4, 5, 6, -1}) {
    const bool masked = fmt == -1;
    const int f = masked ? PIXEL_BGRA32 : fmt;
    for (const auto& s : sizes) {
      for (int r : {2, 3, 8, 17, 31, 64}) {
        std::vector<uint8_t> mask(size_t(s.first) * s.second);
        for (size_t i = 0; i < mask.size(); ++i) mask[i] = static_cast<uint8_t>(i * 53);
        Image plain = Random(s.first, s.second, f, static_cast<uint32_t>(s.first * 31 + r + fmt));
        if (f == PIXEL_FLOAT32 || f == PIXEL_FLOAT96) {
          // Arbitrary floats here: the two forms must agree whatever the rounding.
          std::mt19937 rng(s.first + r);
          for (size_t i = 0; i < plain.pixels.size() / 4; ++i)
            plain.Set<float>(i, std::ldexp(static_cast<float>(rng() % 100000), -int(rng() % 20)));
        }
        Image sse = plain;
        for (bool rows : {true, false}) {
          BoxBlurParam pp = plain.Param(r, masked ? mask.data() : nullptr);
          BoxBlurParam ps = sse.Param(r, masked ? mask.data() : nullptr);
          ASSERT_EQ(RunPass(run, 0, pp, rows, Rect{0, 0, s.first, s.second}), S_OK);
          ASSERT_EQ(RunPass(run, SIMD_SSE41, ps, rows, Rect{0, 0, s.first, s.second}), S_OK);
          ASSERT_EQ(plain.pixels, sse.pixels)
              << "fmt " << fmt << " " << s.first << "x" << s.second << " r " << r << (rows ? " H" : " V");
        }
      }
    }
  }
}

TEST(BoxBlur, SameResultForOneTwoAndEightWorkers) {
  for (int fmt : kFormats) {
    for (int simd : {0, int{SIMD_SSE41}}) {
      std::vector<std::vector<uint8_t>> results;
      for (int workers : {1, 2, 8}) {
        Runner run(workers);
        Image img = Random(61, 43, fmt, 21);
        BoxBlurParam p = img.Param(7);
        ASSERT_EQ(RunBoxBlur(run.adapter, Level(simd), p, Rect{0, 0, 61, 43}, 2), S_OK);
        results.push_back(img.pixels);
      }
      EXPECT_EQ(results[0], results[1]) << fmt;
      EXPECT_EQ(results[0], results[2]) << fmt;
    }
  }
}

TEST(BoxBlur, SingleSweepOfBothPassesMatchesTheTwoPasses) {
  // RunBoxBlur with one pass each way may blur in one sweep per row band;
  // it must give the bytes of a horizontal then a vertical pass.
  const struct { int w, h; } sizes[] = {{61, 43}, {200, 37}, {33, 300}, {7, 120}, {123, 9}};
  for (int workers : {1, 3, 8}) {
    Runner run(workers);
    for (int fmt : {PIXEL_BGRA32, PIXEL_GRAY8}) {
      for (const auto& s : sizes) {
        for (int r : {2, 3, 8, 20}) {
          Image want = Random(s.w, s.h, fmt, static_cast<uint32_t>(s.w + r + workers));
          Image got = want;
          BoxBlurParam pw = want.Param(r), pg = got.Param(r);
          ASSERT_EQ(RunPass(run, 0, pw, true, Rect{0, 0, s.w, s.h}), S_OK);
          ASSERT_EQ(RunPass(run, 0, pw, false, Rect{0, 0, s.w, s.h}), S_OK);
          ASSERT_EQ(RunBoxBlur(run.adapter, Level(SIMD_SSE41), pg, Rect{0, 0, s.w, s.h}), S_OK);
          ASSERT_EQ(got.pixels, want.pixels)
              << "fmt " << fmt << " " << s.w << "x" << s.h << " r " << r << " workers " << workers;
        }
      }
    }
  }
}
