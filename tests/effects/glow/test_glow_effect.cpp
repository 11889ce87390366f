#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "TestSupport.h"
#include "core/ColorSpace.h"
#include "core/ImageChecks.h"
#include "core/SmartBuffer.h"
#include "effects/LightTestSupport.h"
#include "effects/glow/GlowEffect.h"
#include "effects/glow/GlowStages.h"

using namespace Korvane;

namespace {

using Bytes = std::vector<uint8_t>;
using KorvaneTest::RandomBytes;

// Opaque colour gradients with noise and a grid of bright spots.
Bytes Photo(int w, int h) {
  std::mt19937 rng(7);
  Bytes img(static_cast<size_t>(w) * h * 4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &img[(static_cast<size_t>(y) * w + x) * 4];
      const bool spot = ((x / 7) + (y / 5)) % 5 == 0;
      p[0] = static_cast<uint8_t>(spot ? 250 : (x * 255 / w + rng() % 16) & 255);
      p[1] = static_cast<uint8_t>(spot ? 240 : (y * 255 / h + rng() % 16) & 255);
      p[2] = static_cast<uint8_t>(spot ? 255 : (x + y + 100 + rng() % 16) & 255);
      p[3] = 255;
    }
  return img;
}

// One effect on its own pool, initialised for a w x h photo (w > 0).
struct Rig : KorvaneTest::EffectRig<GlowEffect> {
  Rig(int w, int h, int workers = 2, int32_t simd = 0) : EffectRig(workers, simd) {
    EXPECT_EQ(w > 0 ? fx->Initialize(w, h) : S_OK, S_OK);
  }
};

// A valid record over `src` writing the whole photo into `dst` (resized).
GlowParam MakeParam(Bytes& src, Bytes& dst, int w, int h) {
  GlowParam p;
  dst.assign(static_cast<size_t>(w) * h * 4, 0xA5);
  p.src = MakeSmartBufferView(src.data(), w, h), p.dst = MakeSmartBufferView(dst.data(), w, h);
  p.roi = Rect{0, 0, w, h}, p.glow_radius = std::min(5.0f, static_cast<float>(std::max(w, h) / 8));
  p.glow_intensity = 0.6f, p.glow_contrast = 1.6f, p.hlr_threshold = 120, p.saturation = 0.3f;
  p.color_strength = 0.25f, p.color_hue = 0.1f, p.brightness = 0.9f, p.opacity = 230, p.blend_mode = GLOW_BLEND_SCREEN;
  return p;
}

// Renders Photo(w, h) with `tweak` applied to MakeParam's record.
template <class Tweak>
Bytes Render(int w, int h, int workers, int32_t simd, Tweak tweak) {
  Bytes src = Photo(w, h), dst, mask = RandomBytes(static_cast<size_t>(w) * h, 3);
  Rig rig(w, h, workers, simd);
  GlowParam p = MakeParam(src, dst, w, h);
  tweak(p, mask);
  EXPECT_EQ(rig.fx->Process(p), S_OK);
  return dst;
}

// No tint, no saturation change, full brightness: a grey glow.
void Untinted(GlowParam& p) { p.saturation = p.color_strength = 0.0f, p.brightness = 1.0f; }

// Runs a stage task over `region` as one band.
int32_t RunTask(ThreadTask task, void* param, Rect region) {
  ThreadJob job;
  job.param = param, job.rect = region;
  int32_t result = 1;
  task(&job, &result);
  return result;
}

SmartBuffer FloatView(std::vector<float>& v, int w, int h) {
  return MakeSmartBufferView(reinterpret_cast<unsigned char*>(v.data()), w, h, PIXEL_FLOAT96);
}

}  // namespace

// ---------------------------------------------------------------- sizes and lifecycle

TEST(GlowEffect, ProcessNeedsAPreparedEffectOfThePhotosSize) {
  Rig rig(0, 0);
  Bytes src = Photo(64, 16), dst;
  GlowParam p = MakeParam(src, dst, 64, 16), empty;
  empty.src = MakeSmartBufferView(src.data(), 0, 0);
  EXPECT_EQ(rig.fx->Process(p), E_INVALIDARG);  // not the prepared size (0 x 0)
  EXPECT_EQ(rig.fx->Process(empty), E_FAIL);    // the prepared size, but nothing prepared
  ASSERT_EQ(rig.fx->Initialize(64, 16), S_OK);  // half size 32 x 8: the radius may reach (8 - 1) / 2 = 3
  EXPECT_EQ(rig.fx->CalBlurRadius(0.49f), 0);
  EXPECT_EQ(rig.fx->CalBlurRadius(0.5f), 1);
  EXPECT_EQ(rig.fx->CalBlurRadius(8.0f), 3);
  p.glow_radius = 8.0f;  // the largest validation allows still renders
  EXPECT_EQ(rig.fx->Process(p), S_OK);
  EXPECT_EQ(rig.fx->Initialize(0, 10), E_INVALIDARG);
  EXPECT_EQ(rig.fx->Initialize(std::numeric_limits<int32_t>::max(), 10), E_INVALIDARG);
  EXPECT_EQ(rig.fx->GetAlignedWidth(), 64);  // unchanged by the refusals
  EXPECT_EQ(rig.fx->Initialize(64, 16), S_OK);
  EXPECT_EQ(rig.fx->Process(p), S_OK);
  EXPECT_EQ(rig.fx->ReleaseBuffer(), S_OK);
  EXPECT_EQ(rig.fx->Process(p), E_INVALIDARG);
  EXPECT_EQ(rig.fx->Process(empty), E_FAIL);
  ASSERT_EQ(rig.fx->Initialize(64, 16), S_OK);
  EXPECT_EQ(rig.fx->Process(p), S_OK);

  Rig thin(1, 9);  // the half-size glow would be 0 pixels wide
  Bytes src1 = Photo(1, 9);
  GlowParam p1 = MakeParam(src1, dst, 1, 9);
  EXPECT_EQ(thin.fx->Process(p1), E_INVALIDARG);
}

TEST(GlowEffect, ValidationRunsInOrderWithItsCodes) {
  const int w = 40, h = 24;
  Rig rig(w, h);
  static Bytes gray(static_cast<size_t>(w) * h, 200);
  // Several cases carry a second fault that a later step would report.
  const std::tuple<const char*, int32_t, void (*)(GlowParam&)> cases[] = {
      {"src width", E_INVALIDARG, [](GlowParam& p) { p.src.width = 39; p.dst.pix_fmt = PIXEL_GRAY8; }},
      {"src height", E_INVALIDARG, [](GlowParam& p) { p.src.height = 25; }},
      {"src data", E_INVALIDARG, [](GlowParam& p) { p.src.data.reset(); p.glow_intensity = 5; }},
      {"mask format", E_INVALIDARG, [](GlowParam& p) { p.mask = MakeSmartBufferView(p.src.data.get(), 40, 24); }},
      {"mask size", E_INVALIDARG, [](GlowParam& p) { p.mask = MakeSmartBufferView(gray.data(), 39, 24, PIXEL_GRAY8); }},
      {"dst size", E_INVALIDARG, [](GlowParam& p) { p.dst.width = 20; p.dst.pix_fmt = PIXEL_GRAY8; }},
      {"roi outside", E_INVALIDARG, [](GlowParam& p) { p.roi = Rect{1, 0, 41, 24}; }},
      {"negative roi", E_INVALIDARG, [](GlowParam& p) { p.roi = Rect{-2, 0, 38, 24}; }},
      {"dst format", E_NOTIMPL, [](GlowParam& p) { p.dst.pix_fmt = PIXEL_GRAY8; p.glow_intensity = 2; }},
      {"src format", E_NOTIMPL, [](GlowParam& p) { p.src.pix_fmt = PIXEL_BGR24; }},
      {"threshold", E_INVALIDARG, [](GlowParam& p) { p.hlr_threshold = 256; }},
      {"opacity", E_INVALIDARG, [](GlowParam& p) { p.opacity = 256; }},
      {"mode 29", E_INVALIDARG, [](GlowParam& p) { p.blend_mode = 29; }},
      {"mode -1", E_INVALIDARG, [](GlowParam& p) { p.blend_mode = -1; }},
      {"dst data", E_POINTER, [](GlowParam& p) { p.dst.data.reset(); }},
      {"short dst stride", E_INVALIDARG, [](GlowParam& p) { p.dst.stride = 4 * 40 - 1; }},
  };
  Bytes src = Photo(w, h), dst;
  for (const auto& [what, code, tweak] : cases) {
    GlowParam p = MakeParam(src, dst, w, h);
    tweak(p);
    EXPECT_EQ(rig.fx->Process(p), code) << what;
  }
  // Each float setting just outside its range, and not a number.
  const std::pair<float GlowParam::*, float> settings[] = {
      {&GlowParam::glow_intensity, 1.01f},    {&GlowParam::glow_intensity, std::nanf("")},
      {&GlowParam::glow_radius, 5.01f},       {&GlowParam::glow_contrast, 0.99f},  // radius: 40 / 8 = 5
      {&GlowParam::color_hue, 1.5f},          {&GlowParam::color_strength, -0.1f},
      {&GlowParam::color_strength, INFINITY}, {&GlowParam::saturation, 1.1f},
      {&GlowParam::brightness, -0.1f},        {&GlowParam::saturation, -1.1f}};
  for (const auto& c : settings) {
    GlowParam p = MakeParam(src, dst, w, h);
    p.*c.first = c.second;
    EXPECT_EQ(rig.fx->Process(p), E_INVALIDARG) << &c - settings;
  }
  // The edges of every range are accepted.
  GlowParam p = MakeParam(src, dst, w, h);
  p.glow_intensity = 1.0f, p.glow_radius = 5.0f, p.hlr_threshold = 255, p.glow_contrast = 3.0f, p.color_hue = 1.0f;
  p.color_strength = 40.0f, p.saturation = -1.0f, p.brightness = 0.0f, p.opacity = -7, p.blend_mode = 28;
  p.mask = MakeSmartBufferView(gray.data(), w, h, PIXEL_GRAY8);
  EXPECT_EQ(rig.fx->Process(p), S_OK);
}

TEST(GlowEffect, FailingStageIsLoggedByNameAndAsTotalProcess) {
  GlowEffect fx(nullptr);  // no workers: every stage fails
  ASSERT_EQ(fx.Initialize(16, 16), S_OK);
  Bytes src = Photo(16, 16), dst;
  GlowParam p = MakeParam(src, dst, 16, 16);
  testing::internal::CaptureStderr();
  EXPECT_EQ(fx.Process(p), E_INVALIDARG);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("[Korvane] [Korvane](copy src) - Return Code: 80070057\n"), std::string::npos) << log;
  EXPECT_NE(log.find("[Korvane] [Korvane](total process) - Return Code: 80070057\n"), std::string::npos) << log;
}

// ---------------------------------------------------------------- rendering

TEST(GlowEffect, BlackGlowKeepsThePhotoAndAFullThresholdLeavesTheToneOffset) {
  const int w = 53, h = 37;
  const Bytes src = Photo(w, h);
  for (int32_t simd : {0, 5}) {
    const Bytes out = Render(w, h, 2, simd, [](GlowParam& p, Bytes&) {
      p.brightness = 0.0f, p.opacity = 255, p.blend_mode = GlowParam().blend_mode;
    });
    EXPECT_EQ(out, src) << "simd " << simd;
  }
  // Nothing passes the threshold, but "adjust light" adds 0.0625: the glow is
  // 15 everywhere (0.0625 x 255, truncated), which the normal mode at full
  // opacity shows with the photo kept at 1/255.
  const Bytes out = Render(w, h, 2, 0, [](GlowParam& p, Bytes&) {
    Untinted(p);
    p.hlr_threshold = 255, p.opacity = 255, p.blend_mode = GLOW_BLEND_NORMAL;
  });
  for (size_t i = 0; i < out.size(); ++i) ASSERT_EQ(out[i], i % 4 == 3 ? 255 : (src[i] + 15 * 254) / 255) << i;
}

TEST(GlowEffect, HaloSpreadsFromTheHighlightAndAZeroMaskRemovesIt) {
  const int w = 64, h = 48;
  Bytes src(static_cast<size_t>(w) * h * 4, 30), dst, zero(static_cast<size_t>(w) * h, 0);
  for (size_t i = 3; i < src.size(); i += 4) src[i] = 255;
  for (int y = 20; y < 28; ++y)  // one bright square in a dark photo
    for (int x = 28; x < 36; ++x) std::fill_n(&src[(static_cast<size_t>(y) * w + x) * 4], 3, 250);
  Rig rig(w, h);
  GlowParam p = MakeParam(src, dst, w, h);
  Untinted(p);
  p.hlr_threshold = 200, p.glow_intensity = 1.0f, p.glow_radius = 6.0f;
  ASSERT_EQ(rig.fx->Process(p), S_OK);
  auto at = [&](int x, int y) { return dst[(static_cast<size_t>(y) * w + x) * 4 + 1]; };
  EXPECT_GT(at(26, 24), at(20, 24));  // falls off with distance
  EXPECT_GT(at(20, 24), at(4, 24));
  EXPECT_GT(at(26, 24), 60);
  EXPECT_LT(at(2, 2), 60);
  const uint8_t* px = &dst[(static_cast<size_t>(24) * w + 24) * 4];
  EXPECT_TRUE(px[0] == px[1] && px[1] == px[2]);  // an untinted glow stays grey

  const Bytes lit = dst;
  p.mask = MakeSmartBufferView(zero.data(), w, h, PIXEL_GRAY8);
  ASSERT_EQ(rig.fx->Process(p), S_OK);
  const Bytes masked = dst;
  p.mask = SmartBuffer(), p.hlr_threshold = 255;
  ASSERT_EQ(rig.fx->Process(p), S_OK);
  EXPECT_EQ(masked, dst);  // a zero mask: as if nothing passed the threshold
  EXPECT_NE(lit, dst);
}

// A record of the exact renderings, every mode, every kernel form, under
// settings that reach each stage's special cases (no blur, strongest curves,
// a mask). Any speed work on a stage must leave these bytes alone. Each case
// pins one FNV-1a digest over the plain form's outputs of all 29 modes, one
// after another (43 rows each); the SIMD forms are compared byte for byte
// with the plain one, their reference.
TEST(GlowEffect, RenderingsMatchTheirRecordedDigests) {
  const struct {
    float contrast, radius;
    bool mask;
    uint64_t digest;
  } cases[] = {{1.6f, 5.0f, false, 0x63822ae089bc5609ull},
               {1.0f, 0.0f, true, 0xa95aae27aa60dc48ull},
               {3.0f, 8.0f, true, 0x7e64bc96dc9166feull}};
  for (const auto& c : cases) {
    Bytes plain;
    KorvaneTest::ExpectFormsMatchPlain(
        [&](const KorvaneTest::Form& form) {
          Bytes all;
          for (int32_t mode = 0; mode < 29; ++mode) {
            const Bytes out = Render(67, 43, 2, form, [&](GlowParam& p, Bytes& mask) {
              p.glow_contrast = c.contrast, p.glow_radius = c.radius, p.blend_mode = mode;
              if (c.mask) p.mask = MakeSmartBufferView(mask.data(), p.src.width, p.src.height, PIXEL_GRAY8);
            });
            all.insert(all.end(), out.begin(), out.end());
          }
          if (form.code == 0) plain = all;
          return all;
        },
        "contrast " + std::to_string(c.contrast), 67);
    uint64_t digest = 1469598103934665603ull;  // FNV-1a
    for (uint8_t b : plain) digest = (digest ^ b) * 1099511628211ull;
    EXPECT_EQ(digest, c.digest) << std::hex << "0x" << digest << " contrast " << c.contrast;
  }
}

// Renders into padded rows (unequal strides for photo, mask and output, and
// the output as the photo itself, on one and on eight workers) are the packed
// render of two workers. A region render is its crop: with the SIMD forms for
// any region, with the plain form for regions from the origin; elsewhere the
// plain form keeps its own addressing, image pixel (x, y) to dst (x, y) where
// that exists. Nothing outside dst's pixels is written.
TEST(GlowEffect, PaddedRowsAndRegionsRenderAsTheWhole) {
  const int w = 61, h = 35;
  const Rect regions[] = {{0, 0, w, h},     {0, 0, w, h},  {0, 0, 20, 12},  {41, 0, 61, 9},  {0, 23, 17, 35},
                          {44, 26, 61, 35}, {0, 0, 61, 1}, {60, 0, 61, 35}, {0, 34, 61, 35}, {9, 5, 52, 30}};
  for (int32_t simd : KorvaneTest::Forms()) {
    for (int32_t mode : {GLOW_BLEND_SCREEN, GLOW_BLEND_HUE}) {
      const Bytes whole = Render(w, h, 2, simd, [mode](GlowParam& p, Bytes& mask) {
        p.blend_mode = mode;
        p.mask = MakeSmartBufferView(mask.data(), p.src.width, p.src.height, PIXEL_GRAY8);
      });
      for (size_t k = 0; k < std::size(regions); ++k) {  // the whole twice (the second in place), then regions
        const Rect& r = regions[k];
        const int rw = RectWidth(r), rh = RectHeight(r);
        KorvaneTest::TestImage src(w, h, PIXEL_BGRA32, 20), dst(rw, rh, PIXEL_BGRA32, 8), mask(w, h, PIXEL_GRAY8, 5);
        src.Fill(Photo(w, h));
        mask.Fill(RandomBytes(static_cast<size_t>(w) * h, 3));
        Bytes unused_src, unused_dst;
        Rig rig(w, h, k == 0 ? 1 : k == 1 ? 8 : 3, simd);  // the bands differ from the reference's
        GlowParam p = MakeParam(unused_src, unused_dst, w, h);
        p.blend_mode = mode, p.roi = r, p.src = SmartBufferView(src.buf), p.mask = SmartBufferView(mask.buf);
        p.dst = SmartBufferView(k == 1 ? src.buf : dst.buf);
        ASSERT_EQ(rig.fx->Process(p), S_OK);
        EXPECT_TRUE(src.GuardsIntact() && dst.GuardsIntact() && mask.GuardsIntact());
        Bytes want = LightTest::Crop(whole, w, r);
        if (simd == 0 && (r.left || r.top)) {  // the plain form's own addressing; dst keeps its bytes elsewhere
          want.assign(want.size(), KorvaneTest::TestImage::kGuardByte);
          for (int y = r.top; y < rh && r.left < rw; ++y)
            std::copy_n(&whole[(static_cast<size_t>(y) * w + r.left) * 4], (rw - r.left) * 4,
                        &want[(y * rw + r.left) * 4]);
        }
        ASSERT_EQ(KorvaneTest::FirstDifference((k == 1 ? src : dst).Packed(), want, rw), "")
            << "simd " << simd << " mode " << mode << " region " << r.left << "," << r.top << "," << r.right << ","
            << r.bottom << (k == 1 ? " in place" : "");
      }
    }
  }
}

// ---------------------------------------------------------------- stages

TEST(GlowStages, DetectHighlightReadsThreeMaskBytesAndTreatsBytesBeyondTheMaskAsZero) {
  std::mt19937 rng(11);
  for (int w : {1, 2, 3, 5, 7, 13, 33, 45}) {
    const int h = 3 + w % 4, cols = w + w % 4, rows = h + h % 4;  // the aligned allocation
    for (int32_t t : {0, 100, 255, -40, -1000})
      for (bool with_mask : {false, true}) {
        const Bytes src = RandomBytes(static_cast<size_t>(cols) * rows * 4, rng());
        Bytes mask = RandomBytes(static_cast<size_t>(w) * h, rng()), src_copy = src;
        SmartBuffer s = MakeSmartBufferView(src_copy.data(), cols, rows);
        SmartBuffer m = MakeSmartBufferView(mask.data(), w, h, PIXEL_GRAY8);
        // Reference: clamp(in - t) weighted by the mask byte of column x + c.
        Bytes want(src.size());
        for (int y = 0; y < rows; ++y)
          for (int x = 0; x < cols; ++x)
            for (int c = 0; c < 4; ++c) {
              const size_t i = (static_cast<size_t>(y) * cols + x) * 4 + c;
              const int v = std::min(std::max(src[i] - std::max(t, -255), 0), 255);
              const int mv = (x + c < w && y < h) ? mask[static_cast<size_t>(y) * w + x + c] : 0;
              want[i] = static_cast<uint8_t>(c == 3 ? src[i] : with_mask ? (mv * v) >> 8 : v);
            }
        for (int32_t simd : KorvaneTest::Forms()) {
          // A spare row on each side shows any stray write.
          const uint8_t spare = static_cast<uint8_t>(0x11 + simd);
          Bytes out(src.size() + 2 * cols * 4, spare);
          SmartBuffer d = MakeSmartBufferView(out.data() + cols * 4, cols, rows);
          GlowDetectParam p{&s, &d, with_mask ? &m : nullptr, t, cols, rows};
          const auto task = KORVANE_PICK_AVX2(KorvaneTest::Level(simd), GlowDetectHighlight, GlowDetectHighlight_SSE,
                                              GlowDetectHighlight_AVX2);
          ASSERT_EQ(RunTask(task.fn, &p, Rect{-3, -2, cols + 5, rows + 4}), S_OK);  // clipped to the allocation
          ASSERT_TRUE(std::equal(want.begin(), want.end(), out.begin() + cols * 4))
              << "w " << w << " t " << t << " mask " << with_mask << " " << task.name;
          ASSERT_TRUE(std::all_of(out.begin(), out.begin() + cols * 4, [&](uint8_t b) { return b == spare; }));
          ASSERT_TRUE(std::all_of(out.end() - cols * 4, out.end(), [&](uint8_t b) { return b == spare; }));
        }
      }
  }
}

// A highlight of 16 MB and more is written past the caches by the forms that
// can: the same bytes as the plain form, on aligned rows and on rows a pixel
// off alignment (a stride of an odd number of pixels).
TEST(GlowStages, LargeHighlightsGetTheSameBytes) {
  for (int cols : {2048, 2049}) {
    const int rows = 2050;
    const Bytes src = RandomBytes(static_cast<size_t>(cols) * rows * 4, 8);
    KorvaneTest::ExpectFormsMatchPlain(
        [&](const KorvaneTest::Form& form) {
          Bytes out(src.size(), 0x11), in = src;
          SmartBuffer s = MakeSmartBufferView(in.data(), cols, rows), d = MakeSmartBufferView(out.data(), cols, rows);
          GlowDetectParam p{&s, &d, nullptr, 70, cols, rows};
          const auto task =
              KORVANE_PICK_AVX2(form.info, GlowDetectHighlight, GlowDetectHighlight_SSE, GlowDetectHighlight_AVX2);
          EXPECT_EQ(RunTask(task.fn, &p, Rect{0, 0, cols, rows}), S_OK);
          return out;
        },
        std::to_string(cols) + " columns", cols);
  }
}

TEST(GlowStages, ToneCurveKeepsEndsAndMiddleBendsWithContrast) {
  for (float k : {-0.5f, 0.0f, 0.5f})
    for (float x : {0.0f, 0.5f, 1.0f}) EXPECT_NEAR(GlowToneCurve(x, 1.0f, k), x + 0.0625f, 1e-6f) << x << " " << k;
  EXPECT_NEAR(GlowToneCurve(0.75f, 2.0f, 0.0f), 2.0f * 0.75f + 0.0625f, 1e-6f);  // neutral at k = 0
  EXPECT_GT(GlowToneCurve(0.6f, 1.0f, -0.5f), GlowToneCurve(0.6f, 1.0f, 0.0f) + 0.05f);  // steeper
  EXPECT_LT(GlowToneCurve(0.6f, 1.0f, 0.5f), GlowToneCurve(0.6f, 1.0f, 0.0f) - 0.02f);   // flatter
  EXPECT_NE(GlowToneCurve(0.3f, 1.0f, 0.0f, 0.4f), GlowToneCurve(0.3f, 1.0f, 0.0f));     // outer stage works
}

TEST(GlowStages, ConversionsScaleAndClampAndTheirSimdFormsMatchBitForBit) {
  std::mt19937 rng(21);
  std::uniform_real_distribution<float> wide(-0.5f, 1.5f);
  float tone[256];
  GlowToneTable(GlowLightParam{3.0f, 0.25f}, tone);
  const std::vector<KorvaneTest::Form> forms = KorvaneTest::Forms();
  for (int w : {1, 2, 3, 4, 5, 7, 8, 9, 17, 31, 67}) {
    const int h = 3;
    std::vector<float> floats(static_cast<size_t>(w) * h * 3);
    for (size_t i = 0; i < floats.size(); ++i) {  // on and next to byte boundaries, out of range, NaN
      const float k = static_cast<float>(rng() % 256);
      floats[i] = i % 4 == 0 ? k * 0.003921569f : i % 4 == 1 ? std::nextafter(k / 255.0f, 0.0f)
                : i % 4 == 2 ? wide(rng) * 30.0f : (rng() % 5 ? wide(rng) : std::nanf(""));
    }
    const Bytes bytes = RandomBytes(static_cast<size_t>(w) * h * 4, rng());
    std::vector<Bytes> out(forms.size(), bytes);
    // Back to floats plainly and through the tone table, into differently filled buffers.
    std::vector<std::vector<float>> in(forms.size(), floats), back[2];
    for (size_t k = 0; k < forms.size(); ++k) {
      const SystemInfo info = KorvaneTest::Level(forms[k]);
      SmartBuffer b = MakeSmartBufferView(out[k].data(), w, h), f = FloatView(in[k], w, h);
      GlowConvertParam to_bytes{&b, &f};
      const auto to_byte = KORVANE_PICK_AVX2(info, GlowFloatToByte, GlowFloatToByte_SSE, GlowFloatToByte_AVX2);
      const auto to_float = KORVANE_PICK_AVX2(info, GlowByteToFloat, GlowByteToFloat_SSE, GlowByteToFloat_AVX2);
      ASSERT_EQ(RunTask(to_byte.fn, &to_bytes, {0, 0, w, h}), S_OK);
      for (int t = 0; t < 2; ++t) {
        back[t].emplace_back(floats.size(), -7.0f + 8.0f * static_cast<float>(k));
        SmartBuffer f2 = FloatView(back[t][k], w, h);
        GlowConvertParam to_floats{&b, &f2, t ? tone : nullptr};
        ASSERT_EQ(RunTask(to_float.fn, &to_floats, {0, 0, w, h}), S_OK);
      }
    }
    for (size_t i = 0, j = 0; i < bytes.size(); i += 4, j += 3) {
      ASSERT_EQ(out[0][i + 3], bytes[i + 3]);  // alpha kept
      for (int c = 0; c < 3; ++c) {
        const float x = floats[j + c];
        const int want = std::isnan(x) ? 0 : static_cast<int>(std::min(std::max(0.0, x * 255.0), 255.0));
        ASSERT_EQ(out[0][i + c], want) << x;
        ASSERT_EQ(back[0][0][j + c], out[0][i + c] * 0.003921569f);
        ASSERT_EQ(back[1][0][j + c], tone[out[0][i + c]]);
      }
    }
    for (size_t k = 1; k < forms.size(); ++k) {
      ASSERT_EQ(out[k], out[0]) << "float to byte, width " << w << ", " << KorvaneTest::FormName(forms[k]);
      for (int t = 0; t < 2; ++t)
        ASSERT_EQ(0, std::memcmp(back[t][k].data(), back[t][0].data(), floats.size() * sizeof(float)))
            << "byte to float, width " << w << ", tone " << t << ", " << KorvaneTest::FormName(forms[k]);
    }
  }
  Bytes px(4);
  SmartBuffer b = MakeSmartBufferView(px.data(), 1, 1), not_float = b;
  GlowConvertParam bad{&b, &not_float}, missing{&b, nullptr};
  EXPECT_EQ(RunTask(GlowByteToFloat, &bad, {0, 0, 1, 1}), E_INVALIDARG);
  EXPECT_EQ(RunTask(GlowFloatToByte, &missing, {0, 0, 1, 1}), E_POINTER);
}

namespace {

// The colour adjustment step by step, with the shared HSV conversions.
void RefAdjustColor(uint8_t* px, float w, float hue, float sat, float beta) {
  const int b = px[0], g = px[1], r = px[2];
  int tr, tg, tb, h, s, v, r2, g2, b2;
  HsvToRgb(static_cast<int>(hue * 36000), static_cast<int>(w * 32640), std::max(b, std::max(g, r)) << 7, tr, tg, tb);
  const int r1 = std::min(static_cast<int>(r * (1.0f - w) + tr * w), 255);
  const int g1 = std::min(static_cast<int>(g * (1.0f - w) + tg * w), 255);
  const int b1 = std::min(static_cast<int>(b * (1.0f - w) + tb * w), 255);
  RgbToHsv(r1, g1, b1, h, s, v);
  HsvToRgb(h, std::min(static_cast<int>(static_cast<float>(s) * (sat + 1.0f)), 32640), v, r2, g2, b2);
  px[0] = static_cast<uint8_t>(static_cast<int>(b2 * beta));
  px[1] = static_cast<uint8_t>(static_cast<int>(g2 * beta));
  px[2] = static_cast<uint8_t>(static_cast<int>(r2 * beta));
}

}  // namespace

TEST(GlowStages, AdjustColorMatchesTheStepByStepRecipeForEverySettingShape) {
  // Covers each shortcut of the stage (no tint, no saturation change,
  // brightness 1) and the full path, including tints stronger than 1, in
  // every form (97 pixels a row: eight-pixel steps and a tail).
  const int w = 97, h = 5;
  Bytes base = RandomBytes(static_cast<size_t>(w) * h * 4, 5);
  const uint8_t pure[][3] = {{0, 0, 0}, {255, 255, 255}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {10, 200, 90}};
  for (int i = 0; i < 6; ++i) std::copy(pure[i], pure[i] + 3, &base[i * 4]);
  std::copy_n(base.begin(), 2 * w * 4, base.begin() + 3 * w * 4);  // repeated colours (the stage memoises)
  for (float strength : {0.0f, 0.35f, 1.0f, 1.8f})
    for (float sat : {0.0f, -1.0f, 0.6f, 1.0f})
      for (float beta : {1.0f, 0.55f}) {
        Bytes want = base;
        for (size_t i = 0; i < want.size(); i += 4) RefAdjustColor(&want[i], strength, 0.37f, sat, beta);
        for (int form : KorvaneTest::Forms()) {
          const auto task = ChooseKernel<ThreadTask>(KorvaneTest::Level(form), &GlowAdjustColor, "plain", nullptr, "",
                                                     KORVANE_AVX2(GlowAdjustColor_AVX2), "AVX2");
          Bytes got = base;
          SmartBuffer img = MakeSmartBufferView(got.data(), w, h);
          GlowColorParam p{&img, strength, 0.37f, sat, beta};
          ASSERT_EQ(RunTask(task.fn, &p, Rect{0, 0, w, h}), S_OK);
          ASSERT_EQ(got, want) << "strength " << strength << " sat " << sat << " beta " << beta << ", " << task.name
                               << ": " << KorvaneTest::FirstDifference(got, want, w);
        }
      }
}

TEST(GlowStages, FloatAdjustColorFollowsTheByteStage) {
  const int w = 64, h = 4;
  Bytes bytes = RandomBytes(static_cast<size_t>(w) * h * 4, 9);
  std::vector<float> floats(static_cast<size_t>(w) * h * 3);
  for (size_t i = 0, j = 0; i < bytes.size(); i += 4, j += 3)
    for (int c = 0; c < 3; ++c) floats[j + c] = bytes[i + c] / 255.0f;
  floats[0] = 7.5f, bytes[0] = 255;  // above 1: limited to 1 first, as the byte stage's input is
  floats[1] = -2.0f, bytes[1] = 0;   // below 0: limited to 0
  SmartBuffer b = MakeSmartBufferView(bytes.data(), w, h), f = FloatView(floats, w, h);
  GlowColorParam pb{&b, 0.4f, 0.6f, 0.5f, 0.8f}, pf{&f, 0.4f, 0.6f, 0.5f, 0.8f};
  ASSERT_EQ(RunTask(GlowAdjustColor, &pb, Rect{0, 0, w, h}), S_OK);
  ASSERT_EQ(RunTask(GlowAdjustColorFloat, &pf, Rect{0, 0, w, h}), S_OK);
  for (size_t i = 0, j = 0; i < bytes.size(); i += 4, j += 3)
    for (int c = 0; c < 3; ++c) {
      ASSERT_TRUE(floats[j + c] >= 0.0f && floats[j + c] <= 1.0f);
      // The byte stage truncates at three steps; the float one does not.
      ASSERT_NEAR(floats[j + c] * 255.0f, bytes[i + c], 3.5f) << i / 4 << " " << c;
    }
}
