#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/ColorSpace.h"
#include "core/ThreadPool.h"
#include "effects/glow/GlowEffect.h"
#include "effects/glow/GlowStages.h"

using namespace Korvane;

namespace {

std::vector<uint8_t> Noise(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

// A photo-like BGRA image: smooth colour gradients, a few bright spots, noise,
// opaque.
std::vector<uint8_t> Photo(int w, int h, uint32_t seed = 7) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> img(static_cast<size_t>(w) * h * 4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &img[(static_cast<size_t>(y) * w + x) * 4];
      const bool spot = ((x / 7) + (y / 5)) % 5 == 0;
      p[0] = static_cast<uint8_t>(spot ? 250 : (x * 255 / w + rng() % 16) & 255);
      p[1] = static_cast<uint8_t>(spot ? 240 : (y * 255 / h + rng() % 16) & 255);
      p[2] = static_cast<uint8_t>(spot ? 255 : ((x + y) * 128 / (w + h) + 100 + rng() % 16) & 255);
      p[3] = 255;
    }
  return img;
}

SystemInfo Level(int32_t simd) {
  SystemInfo info;
  info.simd_level = simd;
  return info;
}

// One effect on its own pool, initialised for a w x h photo.
struct Rig {
  CThreadPool pool;
  std::unique_ptr<GlowEffect> fx;
  Rig(int w, int h, int workers = 2, int32_t simd = 0) {
    pool.Create(workers);
    fx = std::make_unique<GlowEffect>(&pool);
    fx->SetSystemInfo(Level(simd));
    if (w > 0) {
      EXPECT_EQ(fx->Initialize(w, h), S_OK);
    }
  }
};

// A valid parameter record over `src` writing the whole photo into `dst`.
GlowParam MakeParam(std::vector<uint8_t>& src, std::vector<uint8_t>& dst, int w, int h) {
  GlowParam p;
  p.src = MakeSmartBufferView(src.data(), w, h);
  dst.assign(static_cast<size_t>(w) * h * 4, 0xA5);
  p.dst = MakeSmartBufferView(dst.data(), w, h);
  p.roi = Rect{0, 0, w, h};
  p.glow_intensity = 0.6f;
  p.glow_contrast = 1.6f;
  p.glow_radius = std::min(5.0f, static_cast<float>(std::max(w, h) / 8));
  p.hlr_threshold = 120;
  p.saturation = 0.3f;
  p.color_strength = 0.25f;
  p.color_hue = 0.1f;
  p.brightness = 0.9f;
  p.opacity = 230;
  p.blend_mode = GLOW_BLEND_SCREEN;
  return p;
}

// Renders the photo with `tweak` applied to the default record.
template <class Tweak>
std::vector<uint8_t> Render(int w, int h, int workers, int32_t simd, Tweak tweak, int32_t* code = nullptr) {
  std::vector<uint8_t> src = Photo(w, h), dst, mask = Noise(static_cast<size_t>(w) * h, 3);
  Rig rig(w, h, workers, simd);
  GlowParam p = MakeParam(src, dst, w, h);
  tweak(p, mask);
  const int32_t hr = rig.fx->Process(p);
  if (code) {
    *code = hr;
  } else {
    EXPECT_EQ(hr, S_OK);
  }
  return dst;
}

}  // namespace

// ---------------------------------------------------------------- sizes

TEST(GlowEffect, SizeRulesAreKeptAsTheyStand) {
  // Aligned: n + n % 4 (not a rounding up). Scaled: s + s % 4 with s = n / 2.
  struct Case { int w, h, aw, ah, sw, sh; };
  const Case cases[] = {
      {5, 7, 6, 10, 4, 6},
      {8, 6, 8, 8, 4, 6},
      {1022, 1001, 1024, 1002, 514, 500},
      {2, 3, 4, 6, 2, 2},
  };
  for (const Case& c : cases) {
    Rig rig(c.w, c.h);
    EXPECT_EQ(rig.fx->GetAlignedWidth(), c.aw) << c.w;
    EXPECT_EQ(rig.fx->GetAlignedHeight(), c.ah) << c.h;
    EXPECT_EQ(rig.fx->GetScaledWidth(), c.sw) << c.w;
    EXPECT_EQ(rig.fx->GetScaledHeight(), c.sh) << c.h;
  }
}

TEST(GlowEffect, InitializeRefusesEmptyAndHugeSizesAndKeepsItsState) {
  Rig rig(40, 30);
  EXPECT_EQ(rig.fx->Initialize(0, 10), E_INVALIDARG);
  EXPECT_EQ(rig.fx->Initialize(10, -1), E_INVALIDARG);
  EXPECT_EQ(rig.fx->Initialize(std::numeric_limits<int32_t>::max(), 10), E_INVALIDARG);
  EXPECT_EQ(rig.fx->GetAlignedWidth(), 40);
  EXPECT_EQ(rig.fx->Initialize(40, 30), S_OK);  // same size: nothing to do
  std::vector<uint8_t> src = Photo(40, 30), dst;
  GlowParam p = MakeParam(src, dst, 40, 30);
  EXPECT_EQ(rig.fx->Process(p), S_OK);
}

TEST(GlowEffect, BlurRadiusIsRoundedHalfUpAndLimitedToTheHalfSizeImage) {
  Rig rig(64, 16);  // half size 32 x 8: the radius may reach (8 - 1) / 2 = 3
  EXPECT_EQ(rig.fx->CalBlurRadius(0.0f), 0);
  EXPECT_EQ(rig.fx->CalBlurRadius(0.49f), 0);
  EXPECT_EQ(rig.fx->CalBlurRadius(0.5f), 1);
  EXPECT_EQ(rig.fx->CalBlurRadius(2.5f), 3);
  EXPECT_EQ(rig.fx->CalBlurRadius(8.0f), 3);
  // The largest radius validation allows (max side / 8 = 8) still renders.
  std::vector<uint8_t> src = Photo(64, 16), dst;
  GlowParam p = MakeParam(src, dst, 64, 16);
  p.glow_radius = 8.0f;
  EXPECT_EQ(rig.fx->Process(p), S_OK);
}

// ---------------------------------------------------------------- validation

TEST(GlowEffect, ValidationRunsInOrderWithItsCodes) {
  const int w = 40, h = 24;
  Rig rig(w, h);
  std::vector<uint8_t> src = Photo(w, h), dst, gray(static_cast<size_t>(w) * h, 200);
  struct Case {
    const char* what;
    int32_t code;
    void (*tweak)(GlowParam&);
  };
  static std::vector<uint8_t>* g_gray;
  g_gray = &gray;
  const Case cases[] = {
      {"src width", E_INVALIDARG, [](GlowParam& p) { p.src.width = 39; p.dst.pix_fmt = PIXEL_GRAY8; }},
      {"src height", E_INVALIDARG, [](GlowParam& p) { p.src.height = 25; }},
      {"src data", E_INVALIDARG, [](GlowParam& p) { p.src.data.reset(); p.glow_intensity = 5; }},
      {"mask format", E_INVALIDARG, [](GlowParam& p) { p.mask = MakeSmartBufferView(p.src.data.get(), 40, 24); }},
      {"mask size", E_INVALIDARG, [](GlowParam& p) { p.mask = MakeSmartBufferView(g_gray->data(), 39, 24, PIXEL_GRAY8); }},
      {"dst size before format", E_INVALIDARG, [](GlowParam& p) { p.dst.width = 20; p.dst.pix_fmt = PIXEL_GRAY8; }},
      {"roi outside the photo", E_INVALIDARG, [](GlowParam& p) { p.roi = Rect{1, 0, 41, 24}; }},
      {"negative roi", E_INVALIDARG, [](GlowParam& p) { p.roi = Rect{-2, 0, 38, 24}; }},
      {"dst format", E_NOTIMPL, [](GlowParam& p) { p.dst.pix_fmt = PIXEL_GRAY8; p.glow_intensity = 2; }},
      {"src format", E_NOTIMPL, [](GlowParam& p) { p.src.pix_fmt = PIXEL_BGR24; }},
      {"intensity", E_INVALIDARG, [](GlowParam& p) { p.glow_intensity = 1.01f; }},
      {"intensity NaN", E_INVALIDARG, [](GlowParam& p) { p.glow_intensity = std::nanf(""); }},
      {"radius", E_INVALIDARG, [](GlowParam& p) { p.glow_radius = 5.01f; }},  // 40 / 8 = 5
      {"negative radius", E_INVALIDARG, [](GlowParam& p) { p.glow_radius = -0.5f; }},
      {"threshold", E_INVALIDARG, [](GlowParam& p) { p.hlr_threshold = 256; }},
      {"contrast", E_INVALIDARG, [](GlowParam& p) { p.glow_contrast = 0.99f; }},
      {"hue", E_INVALIDARG, [](GlowParam& p) { p.color_hue = 1.5f; }},
      {"opacity", E_INVALIDARG, [](GlowParam& p) { p.opacity = 256; }},
      {"colour strength", E_INVALIDARG, [](GlowParam& p) { p.color_strength = -0.1f; }},
      {"colour strength inf", E_INVALIDARG, [](GlowParam& p) { p.color_strength = INFINITY; }},
      {"saturation high", E_INVALIDARG, [](GlowParam& p) { p.saturation = 1.1f; }},
      {"brightness", E_INVALIDARG, [](GlowParam& p) { p.brightness = -0.1f; }},
      {"saturation low", E_INVALIDARG, [](GlowParam& p) { p.saturation = -1.1f; }},
      {"mode 29", E_INVALIDARG, [](GlowParam& p) { p.blend_mode = 29; }},
      {"mode -1", E_INVALIDARG, [](GlowParam& p) { p.blend_mode = -1; }},
      {"dst data", E_POINTER, [](GlowParam& p) { p.dst.data.reset(); }},
      {"short dst stride", E_INVALIDARG, [](GlowParam& p) { p.dst.stride = 4 * 40 - 1; }},
  };
  for (const Case& c : cases) {
    GlowParam p = MakeParam(src, dst, w, h);
    c.tweak(p);
    EXPECT_EQ(rig.fx->Process(p), c.code) << c.what;
  }
  // Values at the edges of their ranges are accepted.
  GlowParam p = MakeParam(src, dst, w, h);
  p.glow_intensity = 1.0f;
  p.glow_radius = 5.0f;
  p.hlr_threshold = 255;
  p.glow_contrast = 3.0f;
  p.color_hue = 1.0f;
  p.color_strength = 40.0f;
  p.saturation = -1.0f;
  p.brightness = 0.0f;
  p.opacity = -7;
  p.blend_mode = 28;
  p.mask = MakeSmartBufferView(gray.data(), w, h, PIXEL_GRAY8);
  EXPECT_EQ(rig.fx->Process(p), S_OK);
}

TEST(GlowEffect, ProcessBeforeInitializeAndAfterReleaseIsRefused) {
  Rig rig(0, 0);
  std::vector<uint8_t> src = Photo(16, 16), dst;
  GlowParam p = MakeParam(src, dst, 16, 16);
  EXPECT_EQ(rig.fx->Process(p), E_INVALIDARG);  // the photo is not the prepared size (0 x 0)
  GlowParam empty;
  empty.src = MakeSmartBufferView(src.data(), 0, 0);
  empty.dst = MakeSmartBufferView(dst.data(), 0, 0);
  EXPECT_EQ(rig.fx->Process(empty), E_FAIL);  // matches the size, but nothing is prepared
  ASSERT_EQ(rig.fx->Initialize(16, 16), S_OK);
  EXPECT_EQ(rig.fx->Process(p), S_OK);
  EXPECT_EQ(rig.fx->ReleaseBuffer(), S_OK);
  EXPECT_EQ(rig.fx->GetAlignedWidth(), 0);
  EXPECT_EQ(rig.fx->Process(p), E_INVALIDARG);
  EXPECT_EQ(rig.fx->Process(empty), E_FAIL);
  ASSERT_EQ(rig.fx->Initialize(16, 16), S_OK);  // prepared again after a release
  EXPECT_EQ(rig.fx->Process(p), S_OK);
}

TEST(GlowEffect, OnePixelWidePhotoIsRefusedRatherThanRendered) {
  Rig rig(1, 9);  // the half-size glow would be 0 pixels wide
  std::vector<uint8_t> src = Photo(1, 9), dst;
  GlowParam p = MakeParam(src, dst, 1, 9);
  p.glow_radius = 0.0f;
  EXPECT_EQ(rig.fx->Process(p), E_INVALIDARG);
}

TEST(GlowEffect, FailingStageIsLoggedByNameAndAsTotalProcess) {
  GlowEffect fx(nullptr);  // no workers: every stage fails
  ASSERT_EQ(fx.Initialize(16, 16), S_OK);
  std::vector<uint8_t> src = Photo(16, 16), dst;
  GlowParam p = MakeParam(src, dst, 16, 16);
  testing::internal::CaptureStderr();
  const int32_t hr = fx.Process(p);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(hr, E_INVALIDARG);
  EXPECT_NE(log.find("[Korvane] [Korvane](copy src) - Return Code: 80070057\n"), std::string::npos) << log;
  EXPECT_NE(log.find("[Korvane] [Korvane](total process) - Return Code: 80070057\n"), std::string::npos) << log;
}

// ---------------------------------------------------------------- results

TEST(GlowEffect, BlackGlowWithTheDefaultModeReturnsTheSourceExactly) {
  for (int32_t simd : {0, 5}) {
    if (simd == 5 && !KORVANE_HAVE_SSE41) continue;
    const int w = 53, h = 37;
    std::vector<uint8_t> src = Photo(w, h), dst;
    Rig rig(w, h, 2, simd);
    GlowParam p = MakeParam(src, dst, w, h);
    p.brightness = 0.0f;
    p.opacity = 255;
    p.blend_mode = GlowParam().blend_mode;
    ASSERT_EQ(rig.fx->Process(p), S_OK);
    EXPECT_EQ(dst, src) << "simd " << simd;
  }
}

TEST(GlowEffect, ThresholdAtFullStillLeavesTheToneOffset) {
  // Nothing passes the threshold, but "adjust light" adds 0.0625 before the
  // blur: the softened highlight is 15 everywhere (0.0625 x 255, truncated),
  // which the normal mode at full opacity shows almost alone.
  const int w = 32, h = 20;
  std::vector<uint8_t> src = Photo(w, h), dst;
  Rig rig(w, h);
  GlowParam p = MakeParam(src, dst, w, h);
  p.hlr_threshold = 255;
  p.saturation = 0.0f;
  p.color_strength = 0.0f;
  p.brightness = 1.0f;
  p.opacity = 255;
  p.blend_mode = GLOW_BLEND_NORMAL;
  ASSERT_EQ(rig.fx->Process(p), S_OK);
  for (size_t i = 0; i < dst.size(); i += 4) {
    for (int c = 0; c < 3; ++c) {
      // (d x 1 + 15 x 254) / 255 with the photo kept at 1/255.
      ASSERT_EQ(dst[i + c], (src[i + c] + 15 * 254) / 255) << i;
    }
    ASSERT_EQ(dst[i + 3], 255);
  }
}

TEST(GlowEffect, GlowBrightensTheHighlightsOnly) {
  const int w = 64, h = 48;
  std::vector<uint8_t> src(static_cast<size_t>(w) * h * 4, 30), dst;
  for (size_t i = 3; i < src.size(); i += 4) src[i] = 255;
  // One bright square in the middle of a dark photo.
  for (int y = 20; y < 28; ++y)
    for (int x = 28; x < 36; ++x) std::fill_n(&src[(static_cast<size_t>(y) * w + x) * 4], 3, 250);
  Rig rig(w, h);
  GlowParam p = MakeParam(src, dst, w, h);
  p.hlr_threshold = 200;
  p.glow_intensity = 1.0f;
  p.glow_contrast = 2.0f;
  p.saturation = 0.0f;
  p.color_strength = 0.0f;
  p.brightness = 1.0f;
  p.glow_radius = 6.0f;
  ASSERT_EQ(rig.fx->Process(p), S_OK);
  auto at = [&](int x, int y) { return dst[(static_cast<size_t>(y) * w + x) * 4 + 1]; };
  // The halo falls off with distance from the square and stays grey.
  EXPECT_GT(at(26, 24), at(20, 24));
  EXPECT_GT(at(20, 24), at(4, 24));
  EXPECT_GT(at(26, 24), 60);
  EXPECT_LT(at(2, 2), 60);
  const uint8_t* px = &dst[(static_cast<size_t>(24) * w + 24) * 4];
  EXPECT_EQ(px[0], px[1]);
  EXPECT_EQ(px[1], px[2]);
}

TEST(GlowEffect, SameOutputForOneTwoAndEightWorkers) {
  const int w = 75, h = 41;
  for (int32_t mode : {GLOW_BLEND_SCREEN, GLOW_BLEND_HUE, GLOW_BLEND_SOFT_LIGHT}) {
    auto tweak = [mode](GlowParam& p, std::vector<uint8_t>& mask) {
      p.blend_mode = mode;
      p.mask = MakeSmartBufferView(mask.data(), p.src.width, p.src.height, PIXEL_GRAY8);
    };
    const auto one = Render(w, h, 1, 0, tweak);
    EXPECT_EQ(Render(w, h, 2, 0, tweak), one) << mode;
    EXPECT_EQ(Render(w, h, 8, 0, tweak), one) << mode;
  }
}

TEST(GlowEffect, PlainAndSse41PathsAgreeForEveryModeAtTheOrigin) {
  if (!KORVANE_HAVE_SSE41) GTEST_SKIP() << "SSE4.1 forms not built";
  const int w = 45, h = 29;
  for (int32_t mode = 0; mode < 29; ++mode) {
    auto tweak = [mode](GlowParam& p, std::vector<uint8_t>&) { p.blend_mode = mode; };
    EXPECT_EQ(Render(w, h, 2, 0, tweak), Render(w, h, 2, 5, tweak)) << "mode " << mode;
  }
}

TEST(GlowEffect, RoiAwayFromTheOriginIsTheMatchingCropOfTheWholeRender) {
  if (!KORVANE_HAVE_SSE41) GTEST_SKIP() << "the eight-pixel path writes the roi from dst's origin";
  const int w = 61, h = 35;
  const Rect roi{9, 5, 52, 30};
  const int rw = roi.right - roi.left, rh = roi.bottom - roi.top;
  const auto whole = Render(w, h, 2, 5, [](GlowParam&, std::vector<uint8_t>&) {});
  std::vector<uint8_t> src = Photo(w, h), dst;
  Rig rig(w, h, 2, 5);
  GlowParam p = MakeParam(src, dst, w, h);
  std::vector<uint8_t> crop(static_cast<size_t>(rw) * rh * 4, 0);
  p.dst = MakeSmartBufferView(crop.data(), rw, rh);
  p.roi = roi;
  ASSERT_EQ(rig.fx->Process(p), S_OK);
  for (int y = 0; y < rh; ++y)
    for (int x = 0; x < rw * 4; ++x) {
      ASSERT_EQ(crop[static_cast<size_t>(y) * rw * 4 + x],
                whole[static_cast<size_t>(y + roi.top) * w * 4 + roi.left * 4 + x])
          << x / 4 << "," << y;
    }
}

TEST(GlowEffect, PlainPathWithRoiAwayFromTheOriginStaysInsideDst) {
  const int w = 40, h = 30;
  const Rect roi{20, 15, 36, 27};
  const int rw = roi.right - roi.left, rh = roi.bottom - roi.top;
  std::vector<uint8_t> src = Photo(w, h), dst;
  Rig rig(w, h, 2, 0);
  GlowParam p = MakeParam(src, dst, w, h);
  const size_t guard = 4096;
  std::vector<uint8_t> padded(static_cast<size_t>(rw) * rh * 4 + 2 * guard, 0x5A);
  p.dst = MakeSmartBufferView(padded.data() + guard, rw, rh);
  p.roi = roi;
  ASSERT_EQ(rig.fx->Process(p), S_OK);
  for (size_t i = 0; i < guard; ++i) {
    ASSERT_EQ(padded[i], 0x5A) << i;
    ASSERT_EQ(padded[padded.size() - 1 - i], 0x5A) << i;
  }
}

TEST(GlowEffect, MaskWeightsTheHighlight) {
  const int w = 48, h = 32;
  std::vector<uint8_t> zero(static_cast<size_t>(w) * h, 0);
  // A zero mask removes the highlight: the same as a threshold nothing passes.
  const auto masked = Render(w, h, 2, 0, [&](GlowParam& p, std::vector<uint8_t>&) {
    p.mask = MakeSmartBufferView(zero.data(), w, h, PIXEL_GRAY8);
  });
  const auto dark = Render(w, h, 2, 0, [](GlowParam& p, std::vector<uint8_t>&) { p.hlr_threshold = 255; });
  EXPECT_EQ(masked, dark);
  const auto open = Render(w, h, 2, 0, [](GlowParam&, std::vector<uint8_t>&) {});
  EXPECT_NE(open, dark);
}

// ---------------------------------------------------------------- stages

namespace {

// Runs a stage task over `region` in one band.
int32_t RunTask(ThreadTask task, void* param, Rect region) {
  ThreadJob job;
  job.param = param;
  job.rect = region;
  int32_t result = 1;
  task(&job, &result);
  return result;
}

}  // namespace

TEST(GlowStages, DetectHighlightReadsThreeMaskBytesAndTreatsBytesBeyondTheMaskAsZero) {
  std::mt19937 rng(11);
  for (int w : {1, 2, 3, 5, 7, 13, 33}) {
    const int h = 3 + w % 4;
    const int cols = w + w % 4, rows = h + h % 4;  // the aligned allocation
    for (int32_t t : {0, 100, 255, -40, -1000}) {
      for (bool with_mask : {false, true}) {
        std::vector<uint8_t> src = Noise(static_cast<size_t>(cols) * rows * 4, rng());
        std::vector<uint8_t> mask = Noise(static_cast<size_t>(w) * h, rng());
        SmartBuffer s = MakeSmartBufferView(src.data(), cols, rows);
        SmartBuffer m = MakeSmartBufferView(mask.data(), w, h, PIXEL_GRAY8);
        // Reference: clamp(in - t) weighted by the mask byte of column x + c.
        std::vector<uint8_t> want(src.size());
        for (int y = 0; y < rows; ++y)
          for (int x = 0; x < cols; ++x) {
            const uint8_t* in = &src[(static_cast<size_t>(y) * cols + x) * 4];
            uint8_t* out = &want[(static_cast<size_t>(y) * cols + x) * 4];
            for (int c = 0; c < 3; ++c) {
              const int v = std::min(std::max(in[c] - std::max(t, -255), 0), 255);
              const int mv = (x + c < w && y < h) ? mask[static_cast<size_t>(y) * w + x + c] : 0;
              out[c] = static_cast<uint8_t>(with_mask ? (mv * v) >> 8 : v);
            }
            out[3] = in[3];
          }
        for (int32_t simd : {0, 5}) {
          if (simd == 5 && !KORVANE_HAVE_SSE41) continue;
          // One row of spare bytes on each side shows any stray write.
          std::vector<uint8_t> out(src.size() + 2 * cols * 4, static_cast<uint8_t>(0x11 + simd));
          SmartBuffer d = MakeSmartBufferView(out.data() + cols * 4, cols, rows);
          GlowDetectParam p{&s, &d, with_mask ? &m : nullptr, t, cols, rows};
          const ThreadTask task = simd ? KORVANE_SSE41(GlowDetectHighlight_SSE4) : &GlowDetectHighlight;
          // A band reaching past the allocation is clipped to it.
          ASSERT_EQ(RunTask(task, &p, Rect{-3, -2, cols + 5, rows + 4}), S_OK);
          ASSERT_TRUE(std::equal(want.begin(), want.end(), out.begin() + cols * 4))
              << "w " << w << " t " << t << " mask " << with_mask << " simd " << simd;
          for (int i = 0; i < cols * 4; ++i) {
            ASSERT_EQ(out[i], 0x11 + simd);
            ASSERT_EQ(out[out.size() - 1 - i], 0x11 + simd);
          }
        }
      }
    }
  }
}

TEST(GlowStages, ToneCurveKeepsItsEndsAndMiddleAndBendsWithTheContrast) {
  for (float k : {-0.5f, -0.2f, 0.0f, 0.3f, 0.5f}) {
    EXPECT_NEAR(GlowToneCurve(0.0f, 1.0f, k), 0.0625f, 1e-6f);
    EXPECT_NEAR(GlowToneCurve(0.5f, 1.0f, k), 0.5625f, 1e-6f);
    EXPECT_NEAR(GlowToneCurve(1.0f, 1.0f, k), 1.0625f, 1e-6f);
    float prev = -1.0f;
    for (int i = 0; i <= 255; ++i) {  // monotone
      const float v = GlowToneCurve(i / 255.0f, 1.0f, k);
      EXPECT_GE(v, prev) << k;
      prev = v;
    }
  }
  // The stage gives exactly the curve's values, with and without outer strengths.
  std::mt19937 rng(4);
  std::uniform_real_distribution<float> unit(-0.2f, 1.3f);
  const int n = 333;
  std::vector<float> xs(n * 3);
  for (float& x : xs) x = unit(rng);
  for (float k_in : {0.0f, 0.25f}) {
    std::vector<float> img = xs;
    SmartBuffer b = MakeSmartBufferView(reinterpret_cast<unsigned char*>(img.data()), n, 1, PIXEL_FLOAT96);
    GlowLightParam p{&b, 7.5f, -0.35f, k_in, -0.1f * (k_in > 0)};
    ThreadJob job;
    job.param = &p;
    job.rect = Rect{0, 0, n, 1};
    int32_t result = 1;
    GlowAdjustLight(&job, &result);
    ASSERT_EQ(result, S_OK);
    for (int i = 0; i < n * 3; ++i) ASSERT_EQ(img[i], GlowToneCurve(xs[i], 7.5f, -0.35f, p.k_in, p.k_out)) << i;
  }
  EXPECT_NE(GlowToneCurve(0.3f, 1.0f, 0.0f, 0.4f), GlowToneCurve(0.3f, 1.0f, 0.0f));
  // Neutral at k = 0, steeper around the middle below it, flatter above it.
  EXPECT_NEAR(GlowToneCurve(0.75f, 2.0f, 0.0f), 2.0f * 0.75f + 0.0625f, 1e-6f);
  EXPECT_GT(GlowToneCurve(0.6f, 1.0f, -0.5f), GlowToneCurve(0.6f, 1.0f, 0.0f) + 0.05f);
  EXPECT_LT(GlowToneCurve(0.6f, 1.0f, 0.5f), GlowToneCurve(0.6f, 1.0f, 0.0f) - 0.02f);
}

TEST(GlowStages, ByteFloatRoundTripThroughTheToneCurve) {
  const int w = 256, h = 1;
  std::vector<uint8_t> bytes(w * 4);
  for (int x = 0; x < w; ++x) bytes[x * 4] = bytes[x * 4 + 1] = bytes[x * 4 + 2] = static_cast<uint8_t>(x), bytes[x * 4 + 3] = 77;
  std::vector<float> floats(w * 3, -1.0f);
  SmartBuffer b = MakeSmartBufferView(bytes.data(), w, h);
  SmartBuffer f = MakeSmartBufferView(reinterpret_cast<unsigned char*>(floats.data()), w, h, PIXEL_FLOAT96);
  GlowConvertParam conv{&b, &f};
  const Rect all{0, 0, w, h};
  ASSERT_EQ(RunTask(GlowByteToFloat, &conv, all), S_OK);
  EXPECT_FLOAT_EQ(floats[3 * 255], 255 * 0.003921569f);
  ASSERT_EQ(RunTask(GlowFloatToByte, &conv, all), S_OK);  // identity on bytes
  for (int x = 0; x < w; ++x) ASSERT_EQ(bytes[x * 4], x);

  GlowLightParam light{&f, 0.0f, 0.0f};  // no gain: only the offset is left
  ASSERT_EQ(RunTask(GlowByteToFloat, &conv, all), S_OK);
  ASSERT_EQ(RunTask(GlowAdjustLight, &light, all), S_OK);
  ASSERT_EQ(RunTask(GlowFloatToByte, &conv, all), S_OK);
  for (int x = 0; x < w; ++x) {
    ASSERT_EQ(bytes[x * 4 + 2], 15);
    ASSERT_EQ(bytes[x * 4 + 3], 77);  // alpha untouched
  }
  // Full gain saturates and clamps to 255 rather than wrapping.
  for (int x = 0; x < w; ++x) bytes[x * 4] = static_cast<uint8_t>(x);
  light.gain = 20.0f;
  ASSERT_EQ(RunTask(GlowByteToFloat, &conv, all), S_OK);
  ASSERT_EQ(RunTask(GlowAdjustLight, &light, all), S_OK);
  ASSERT_EQ(RunTask(GlowFloatToByte, &conv, all), S_OK);
  EXPECT_EQ(bytes[0], 15);
  EXPECT_EQ(bytes[12 * 4], 255);
  EXPECT_EQ(bytes[255 * 4], 255);
  // Wrong formats are refused.
  SmartBuffer not_float = b;
  GlowConvertParam bad{&b, &not_float};
  EXPECT_EQ(RunTask(GlowByteToFloat, &bad, all), E_INVALIDARG);
}

namespace {

// The colour adjustment step by step, with the shared HSV conversions.
void RefAdjustColor(uint8_t* px, float w, float hue, float sat, float beta) {
  const int b = px[0], g = px[1], r = px[2];
  const int v = std::max(b, std::max(g, r));
  int tr, tg, tb;
  HsvToRgb(static_cast<int>(hue * 36000), static_cast<int>(w * 32640), v << 7, tr, tg, tb);
  const int r1 = std::min(static_cast<int>(r * (1.0f - w) + tr * w), 255);
  const int g1 = std::min(static_cast<int>(g * (1.0f - w) + tg * w), 255);
  const int b1 = std::min(static_cast<int>(b * (1.0f - w) + tb * w), 255);
  int h, s, vv;
  RgbToHsv(r1, g1, b1, h, s, vv);
  const int s2 = std::min(static_cast<int>(static_cast<float>(s) * (sat + 1.0f)), 32640);
  int r2, g2, b2;
  HsvToRgb(h, s2, vv, r2, g2, b2);
  px[0] = static_cast<uint8_t>(static_cast<int>(b2 * beta));
  px[1] = static_cast<uint8_t>(static_cast<int>(g2 * beta));
  px[2] = static_cast<uint8_t>(static_cast<int>(r2 * beta));
}

}  // namespace

TEST(GlowStages, AdjustColorMatchesTheStepByStepRecipeForEverySettingShape) {
  // Covers each shortcut the stage takes (no tint, no saturation change,
  // brightness 1) and the full path, including tints stronger than 1.
  const int w = 97, h = 5;
  std::vector<uint8_t> base = Noise(static_cast<size_t>(w) * h * 4, 5);
  const uint8_t pure[][3] = {{0, 0, 0}, {255, 255, 255}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {10, 200, 90}};
  for (int i = 0; i < 6; ++i) std::copy(pure[i], pure[i] + 3, &base[i * 4]);
  for (float strength : {0.0f, 0.35f, 1.0f, 1.8f})
    for (float sat : {0.0f, -1.0f, -0.4f, 0.6f, 1.0f})
      for (float beta : {1.0f, 0.55f, 0.0f}) {
        const float hue = 0.37f;
        std::vector<uint8_t> want = base, got = base;
        for (size_t i = 0; i < want.size(); i += 4) RefAdjustColor(&want[i], strength, hue, sat, beta);
        SmartBuffer img = MakeSmartBufferView(got.data(), w, h);
        GlowColorParam p{&img, strength, hue, sat, beta};
        ASSERT_EQ(RunTask(GlowAdjustColor, &p, Rect{0, 0, w, h}), S_OK);
        ASSERT_EQ(got, want) << "strength " << strength << " sat " << sat << " beta " << beta;
      }
}

TEST(GlowStages, FloatAdjustColorFollowsTheByteStage) {
  const int w = 64, h = 4;
  std::vector<uint8_t> bytes = Noise(static_cast<size_t>(w) * h * 4, 9);
  std::vector<float> floats(static_cast<size_t>(w) * h * 3);
  for (size_t i = 0, j = 0; i < bytes.size(); i += 4, j += 3)
    for (int c = 0; c < 3; ++c) floats[j + c] = bytes[i + c] / 255.0f;
  floats[0] = 7.5f;   // above 1: limited to 1 first, as the byte stage's input is
  floats[1] = -2.0f;  // below 0: limited to 0
  bytes[0] = 255;
  bytes[1] = 0;
  SmartBuffer b = MakeSmartBufferView(bytes.data(), w, h);
  SmartBuffer f = MakeSmartBufferView(reinterpret_cast<unsigned char*>(floats.data()), w, h, PIXEL_FLOAT96);
  GlowColorParam pb{&b, 0.4f, 0.6f, 0.5f, 0.8f};
  GlowColorParam pf{&f, 0.4f, 0.6f, 0.5f, 0.8f};
  ASSERT_EQ(RunTask(GlowAdjustColor, &pb, Rect{0, 0, w, h}), S_OK);
  ASSERT_EQ(RunTask(GlowAdjustColorFloat, &pf, Rect{0, 0, w, h}), S_OK);
  for (size_t i = 0, j = 0; i < bytes.size(); i += 4, j += 3)
    for (int c = 0; c < 3; ++c) {
      ASSERT_GE(floats[j + c], 0.0f);
      ASSERT_LE(floats[j + c], 1.0f);
      // The byte stage truncates at three steps; the float one does not.
      ASSERT_NEAR(floats[j + c] * 255.0f, bytes[i + c], 3.5f) << i / 4 << " " << c;
    }
}

TEST(GlowStages, Sse41ConversionsMatchThePlainOnesBitForBit) {
  if (!KORVANE_HAVE_SSE41) GTEST_SKIP() << "SSE4.1 forms not built";
  std::mt19937 rng(21);
  std::uniform_real_distribution<float> wide(-0.5f, 1.5f);
  for (int w : {1, 2, 3, 4, 5, 7, 8, 9, 17, 31, 64, 67}) {
    const int h = 3;
    std::vector<float> floats(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < floats.size(); ++i) {
      // Values on and next to the byte boundaries, out of range, and NaN.
      switch (i % 5) {
        case 0: floats[i] = static_cast<float>(rng() % 256) * 0.003921569f; break;
        case 1: floats[i] = std::nextafter(static_cast<float>(rng() % 256) / 255.0f, 0.0f); break;
        case 2: floats[i] = wide(rng); break;
        case 3: floats[i] = (rng() % 7 == 0) ? std::nanf("") : wide(rng) * 30.0f; break;
        default: floats[i] = static_cast<float>(rng() % 256) / 255.0f; break;
      }
    }
    const std::vector<uint8_t> bytes = Noise(static_cast<size_t>(w) * h * 4, rng());
    std::vector<uint8_t> out_plain = bytes, out_sse = bytes;
    std::vector<float> f_plain(floats.size(), -7.0f), f_sse(floats.size(), 9.0f);
    std::vector<float> in_plain = floats, in_sse = floats;
    std::vector<uint8_t> b_plain = bytes, b_sse = bytes;
    SmartBuffer bp = MakeSmartBufferView(out_plain.data(), w, h), bs = MakeSmartBufferView(out_sse.data(), w, h);
    SmartBuffer fp = MakeSmartBufferView(reinterpret_cast<unsigned char*>(in_plain.data()), w, h, PIXEL_FLOAT96);
    SmartBuffer fs = MakeSmartBufferView(reinterpret_cast<unsigned char*>(in_sse.data()), w, h, PIXEL_FLOAT96);
    GlowConvertParam cp{&bp, &fp}, cs{&bs, &fs};
    const Rect all{0, 0, w, h};
    ASSERT_EQ(RunTask(GlowFloatToByte, &cp, all), S_OK);
    ASSERT_EQ(RunTask(KORVANE_SSE41(GlowFloatToByte_SSE4), &cs, all), S_OK);
    ASSERT_EQ(out_plain, out_sse) << "float to byte, width " << w;
    for (size_t i = 3; i < bytes.size(); i += 4) ASSERT_EQ(out_sse[i], bytes[i]);  // alpha kept

    SmartBuffer bp2 = MakeSmartBufferView(b_plain.data(), w, h), bs2 = MakeSmartBufferView(b_sse.data(), w, h);
    SmartBuffer fp2 = MakeSmartBufferView(reinterpret_cast<unsigned char*>(f_plain.data()), w, h, PIXEL_FLOAT96);
    SmartBuffer fs2 = MakeSmartBufferView(reinterpret_cast<unsigned char*>(f_sse.data()), w, h, PIXEL_FLOAT96);
    GlowConvertParam cp2{&bp2, &fp2}, cs2{&bs2, &fs2};
    ASSERT_EQ(RunTask(GlowByteToFloat, &cp2, all), S_OK);
    ASSERT_EQ(RunTask(KORVANE_SSE41(GlowByteToFloat_SSE4), &cs2, all), S_OK);
    ASSERT_EQ(0, std::memcmp(f_plain.data(), f_sse.data(), f_plain.size() * sizeof(float))) << "width " << w;
  }
}
