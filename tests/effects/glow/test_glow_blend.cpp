// Glow blend modes: each blend function against an independent real-valued
// formula, the branch edges, the compositing frame, and the row tasks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "core/ResultCode.h"
#include "core/Simd.h"
#include "core/ThreadAdapter.h"
#include "core/ThreadPool.h"
#include "effects/glow/GlowBlend.h"

using namespace Korvane;

namespace {

int32_t F(int32_t slot, int s, int d) {
  const uint8_t sp[4] = {uint8_t(s), uint8_t(s), uint8_t(s), 255};
  const uint8_t dp[4] = {uint8_t(d), uint8_t(d), uint8_t(d), 255};
  int32_t f[3];
  GlowBlendFunction(slot, sp, dp, f);
  EXPECT_TRUE(f[0] == f[1] && f[1] == f[2]) << "slot " << slot;
  return f[0];
}

double Clamp(double v) { return std::min(255.0, std::max(0.0, v)); }
double Vivid(double s, double d) {
  if (s < 128) return s == 0 ? 0 : 255 - (255 - d) * 255 / (2 * s);
  return s == 255 ? 255 : d * 255 / (2 * (255 - s));
}
double Burn(double s, double d) { return s > 0 ? 255 - (255 - d) * 255 / s : (d < 255 ? 0 : 255); }
double Dodge(double s, double d) { return s < 255 ? d * 255 / (255 - s) : (d > 0 ? 255 : 0); }
double Divide(double s, double d) { return s > 0 ? d * 255 / s : (d > 0 ? 255 : 0); }
// Hard light split on `split` (overlay is hard light with the layers swapped).
double HardLightOf(double split, double other) {
  const double a = split / 255, b = other / 255;
  return 255 * (a < 0.5 ? 2 * a * b : 1 - 2 * (1 - a) * (1 - b));
}

// The separable modes from their definitions on 0..1 values, scaled to 0..255.
struct SeparableCase {
  int32_t slot;
  double tol;  // bound on |integer form - real form| from its truncations; 0: exact
  std::function<double(double, double)> ref;
};

const std::vector<SeparableCase>& SeparableCases() {
  static const std::vector<SeparableCase> cases = {
      {0, 0, [](double s, double) { return s; }},
      {1, 0, [](double s, double d) { return std::min(s, d); }},
      {2, 1, [](double s, double d) { return 255 * (s / 255) * (d / 255); }},
      {3, 0, [](double s, double d) { return std::max(s + d - 255, 0.0); }},
      {4, 0, [](double s, double d) { return s + d - 255; }},
      {5, 0, [](double s, double d) { return std::max(s, d); }},
      {6, 1, [](double s, double d) { return 255 * (1 - (1 - s / 255) * (1 - d / 255)); }},
      {7, 0, [](double s, double d) { return 255 - std::fabs(255 - s - d); }},
      {8, 0, [](double s, double d) { return std::min(s + d, 255.0); }},
      {9, 1, [](double s, double d) { return HardLightOf(d, s); }},
      {10, 0, [](double s, double d) { return Clamp(d + 2 * s - 255); }},
      {11, 0, [](double s, double d) { return d + 2 * s - 255; }},
      {12, 0, [](double s, double d) { return std::fabs(d - s); }},
      {13, 1, [](double s, double d) { return 255 * (s / 255 + d / 255 - 2 * (s / 255) * (d / 255)); }},
      {17, 1, [](double s, double d) { return 255 * ((1 - 2 * s / 255) * (d / 255) * (d / 255) + 2 * s * d / 65025); }},
      {18, 1, [](double s, double d) { return HardLightOf(s, d); }},
      // Soft light with the square-root branch from a quarter up; the integer
      // form takes 16 * sqrt(d) for 255 * sqrt(d / 255), up to 0.5 higher.
      {19, 2,
       [](double s, double d) {
         const double a = s / 255, b = d / 255;
         if (a < 0.5) return 255 * (2 * a * b + (1 - 2 * a) * b * b);
         const double g = b >= 0.25 ? std::sqrt(b) : ((16 * b - 12) * b + 4) * b;
         return 255 * (2 * (1 - a) * b + (2 * a - 1) * g);
       }},
      {20, 1, [](double s, double d) { return std::max(Burn(s, d), 0.0); }},
      {21, 1, [](double s, double d) { return Burn(s, d); }},
      {22, 1, [](double s, double d) { return std::min(Dodge(s, d), 255.0); }},
      {23, 1, [](double s, double d) { return Dodge(s, d); }},
      {24, 1, [](double s, double d) { return Clamp(Vivid(s, d)); }},
      {25, 1, [](double s, double d) { return Vivid(s, d); }},
      {26, 0, [](double s, double d) { return s < 128 ? std::min(d, 2 * s) : std::max(2 * s - 255, d); }},
      {28, 1, [](double s, double d) { return s == 255 ? 255 : std::min(d * d / (255 - s), 255.0); }},
      {29, 0, [](double s, double d) { return std::min(s + d, 255.0); }},
      {30, 0, [](double s, double d) { return s + d; }},
      {31, 0, [](double s, double d) { return std::max(d - s, 0.0); }},
      {32, 0, [](double s, double d) { return d - s; }},
      {33, 1, [](double s, double d) { return std::min(Divide(s, d), 255.0); }},
      {34, 1, [](double s, double d) { return Divide(s, d); }},
      {37, 0, [](double s, double) { return s; }},
  };
  return cases;
}

TEST(GlowBlendFunction, SeparableModesMatchTheirDefinitionsOverAllPairs) {
  for (const SeparableCase& c : SeparableCases()) {
    int bad = 0;
    for (int s = 0; s < 256 && bad < 3; ++s) {
      for (int d = 0; d < 256 && bad < 3; ++d) {
        const double want = c.ref(s, d);
        const int32_t got = F(c.slot, s, d);
        // Exact modes match; the others stay strictly within `tol`.
        const double err = std::fabs(got - want);
        if (c.tol == 0 ? err > 1e-9 : err >= c.tol) {
          ADD_FAILURE() << "slot " << c.slot << " s=" << s << " d=" << d << " got " << got << " want " << want;
          ++bad;
        }
      }
    }
  }
}

TEST(GlowBlendFunction, HardMixIsVividLightThresholdedAt128) {
  for (int s = 0; s < 256; ++s) {
    for (int d = 0; d < 256; ++d) {
      if (std::fabs(Vivid(s, d) - 128) < 1) continue;  // integer vivid light may round across
      ASSERT_EQ(F(27, s, d), Vivid(s, d) >= 128 ? 255 : 0) << s << " " << d;
    }
  }
  // At the threshold: vivid light of (128, d) is d * 255 / 254, 127 for 127, 128 for 128.
  EXPECT_EQ(F(27, 128, 127), 0);
  EXPECT_EQ(F(27, 128, 128), 255);
}

TEST(GlowBlendFunction, BranchEdges) {
  struct Case { int32_t slot, s, d, want; };
  const Case cases[] = {
      // Soft light switches from the cubic to the square root at photo 64.
      {19, 200, 63, 99}, {19, 200, 64, 100}, {19, 127, 64, (2 * 127 * 64 + 1 * 64 * 64 / 255) / 255},
      // Vivid light at glow 0, 127, 128 and 255.
      {25, 0, 255, 0}, {25, 127, 100, 100}, {25, 128, 100, 100}, {25, 127, 0, 255 - 255 * 255 / 254},
      {25, 255, 0, 255}, {25, 254, 200, 200 * 255 / 2},
      // Colour dodge at 255 and just below, unclamped and clamped.
      {23, 255, 0, 0}, {23, 255, 1, 255}, {23, 254, 200, 51000}, {22, 254, 200, 255},
      // Division by a zero glow; colour burn's far end, unclamped and clamped; reflect.
      {34, 0, 0, 0}, {34, 0, 1, 255}, {21, 0, 254, 0}, {21, 0, 255, 255}, {21, 1, 0, 255 - 65025},
      {20, 1, 0, 0}, {28, 255, 0, 255}, {28, 254, 16, 255},
  };
  for (const Case& c : cases) EXPECT_EQ(F(c.slot, c.s, c.d), c.want) << "slot " << c.slot << " s " << c.s << " d " << c.d;
}

uint8_t Px(int v) { return uint8_t(v & 255); }

// Darker / lighter colour pick a whole pixel by luminance (not by channel
// sum); luminosity keeps the photo's hue and chroma at the glow's luminance,
// which is the photo shifted by Ls - Ld where nothing clamps.
TEST(GlowBlendFunction, LuminanceModesOverASweepOfColourPairs) {
  auto luma = [](const uint8_t* c) { return (7209.0 * c[0] + 38665.0 * c[1] + 19660.0 * c[2]) / 65536; };
  int32_t f[3];
  int worst = 0;
  for (int g = 0; g < 256; ++g) {
    for (int p = 0; p < 256; ++p) {
      const uint8_t s[4] = {Px(g), Px(255 - g), Px(g * 7), 255}, d[4] = {Px(p), Px(p * 3), Px(255 - p), 255};
      const double ls = luma(s), ld = luma(d);
      GlowBlendFunction(16, s, d, f);
      for (int k = 0; k < 3; ++k) worst = std::max(worst, int(std::lround(std::fabs(f[k] - Clamp(d[k] + ls - ld)))));
      if (std::fabs(ls - ld) < 1) continue;  // the integer luminances may tie or swap
      GlowBlendFunction(35, s, d, f);
      ASSERT_EQ(f[2], ld > ls ? s[2] : d[2]);
      GlowBlendFunction(36, s, d, f);
      ASSERT_EQ(f[2], ld < ls ? s[2] : d[2]);
    }
  }
  EXPECT_LE(worst, 3);  // integer hue and sector rebuild, truncated luminances
  const uint8_t grey[4] = {90, 90, 90, 255}, white[4] = {255, 255, 255, 255};
  GlowBlendFunction(16, white, grey, f);
  EXPECT_EQ(f[0], 254);  // weights sum to 65534: white has luminance 254
}

// W3C-style references: the glow's hue at the photo's chroma (hue mode), or
// the photo's hue at the damped glow chroma (saturation), then the photo's
// luminance, clamped.
void ReferenceFloat(int mode, const float* s, const uint8_t* d, double* out) {
  auto lum = [](const double* c) { return (7209.0 * c[0] + 38665.0 * c[1] + 19660.0 * c[2]) / 65536; };
  const double dv[3] = {double(d[0]), double(d[1]), double(d[2])};
  const double sv[3] = {s[0], s[1], s[2]};
  const double* hue_src = mode == 11 ? sv : dv;
  const double hmax = *std::max_element(hue_src, hue_src + 3), hmin = *std::min_element(hue_src, hue_src + 3);
  const double cs = *std::max_element(sv, sv + 3) - *std::min_element(sv, sv + 3);
  const double cd = *std::max_element(dv, dv + 3) - *std::min_element(dv, dv + 3);
  const double ld = lum(dv);
  double c = mode == 11 ? (cs > 0 ? cd : 0) : cs;
  if (mode == 12) {
    if (cd < 5) c = cd * c / 5;
    if (ld > 180)
      c = (255 - ld) * c / 75;
    else if (ld < 60)
      c = ld * c / 60;
  }
  double col[3];
  for (int k = 0; k < 3; ++k) col[k] = hmax > hmin ? (hue_src[k] - hmin) * c / (hmax - hmin) : 0;
  const double shift = ld - lum(col);
  for (int k = 0; k < 3; ++k) out[k] = Clamp(col[k] + shift);
}

TEST(GlowBlendFunction, FloatHueAndSaturationMatchReference) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int mode : {11, 12}) {
    double worst = 0;
    for (int i = 0; i < 60000; ++i) {
      const float s[3] = {float(byte(rng)), float(byte(rng)), float(byte(rng))};
      const uint8_t d[4] = {Px(byte(rng)), Px(byte(rng)), Px(byte(rng)), 255};
      float f[3];
      double want[3];
      GlowBlendFloatFunction(mode, s, d, f);
      ReferenceFloat(mode, s, d, want);
      for (int k = 0; k < 3; ++k) worst = std::max(worst, std::fabs(f[k] - want[k]));
    }
    EXPECT_LT(worst, 0.05) << "mode " << mode;
  }
}

TEST(GlowBlendPixel, CompositingFrame) {
  struct Px4 { uint8_t v[4]; };
  const Px4 black{{0, 0, 0, 255}}, white{{255, 255, 255, 255}}, faint{{255, 255, 255, 1}}, half{{0, 0, 0, 128}};
  const Px4 glow{{10, 100, 200, 255}}, clear{{50, 50, 50, 0}}, s2{{100, 200, 0, 255}}, d2{{100, 100, 30, 255}};
  struct Case { const char* what; int32_t slot; Px4 s, d; int32_t opacity; bool alpha_mul, raw; int channel, want; };
  const Case cases[] = {
      // Full alpha at opacity 255 gives a = 254: the photo keeps 1/255 of itself.
      {"a = 254 keeps the photo", 0, black, white, 255, false, false, 0, 1},
      {"a = 254 shows the glow", 0, white, black, 255, false, false, 0, 254},
      {"opaque out alpha", 0, black, white, 255, false, false, 3, 255},
      // a <= 0 leaves the output untouched (77): zero or negative opacity, alpha 1 at 255.
      {"opacity 0", 30, white, black, 0, false, false, 0, 77},
      {"opacity < 0", 30, white, black, -5, false, false, 0, 77},
      {"alpha 1", 30, faint, black, 255, false, false, 3, 77},
      // Over a transparent photo the glow itself shows, with alpha a.
      {"transparent photo B", 2, glow, clear, 255, false, false, 0, 10},
      {"transparent photo R", 2, glow, clear, 255, false, false, 2, 200},
      {"transparent photo A", 2, glow, clear, 255, false, false, 3, 254},
      // Addition at opacity 128: a = 127, wd = 128, wb = 127, out = (d*128 + 127*(s+d)) / 255.
      {"addition half", 30, s2, d2, 128, false, false, 0, (100 * 128 + 127 * 200) / 255},
      {"addition half, glow 0", 30, s2, d2, 128, false, false, 2, 30},
      {"addition clamps 299", 30, s2, d2, 255, false, false, 1, 255},
      {"subtraction clamps at 0", 32, white, black, 255, false, false, 0, 0},
      {"raw writes F", 30, s2, d2, 255, false, true, 0, 200},
      {"raw clamps F", 30, s2, d2, 255, false, true, 1, 255},
      {"alpha_mul: As = 128, a = 127", 0, white, half, 255, true, false, 3, 127 + 128 * 128 / 255},
  };
  for (const Case& c : cases) {
    uint8_t out[4] = {77, 77, 77, 77};
    GlowBlendPixel(c.slot, c.s.v, c.d.v, out, c.opacity, c.alpha_mul, c.raw);
    EXPECT_EQ(out[c.channel], c.want) << c.what;
  }
}

// ---------------------------------------------------------------------------
// Row tasks.

struct Image {
  int32_t w, h, fmt;
  std::vector<uint8_t> px;
  Image(int32_t w_, int32_t h_, int32_t fmt_ = PIXEL_BGRA32, uint8_t fill = 0)
      : w(w_), h(h_), fmt(fmt_), px(size_t(w_) * h_ * BytesPerPixel(fmt_), fill) {}
  SmartBuffer View() { return MakeSmartBufferView(px.data(), w, h, fmt); }
};

Image Random(int32_t w, int32_t h, std::mt19937& rng, int min_alpha = 0) {
  Image im(w, h);
  std::uniform_int_distribution<int> byte(0, 255);
  for (size_t i = 0; i < im.px.size(); ++i) im.px[i] = Px(byte(rng));
  for (size_t i = 3; i < im.px.size(); i += 4) im.px[i] = Px(std::max<int>(im.px[i], min_alpha));
  // Some saturated pixels so the branch edges come up.
  for (size_t i = 0; i < im.px.size(); i += 28) im.px[i] = (i & 32) ? 255 : 0;
  return im;
}

// A pool with the blend tables; a form is 0 (plain), SIMD_SSE41 or KorvaneTest::kAvx2.
struct Runner : KorvaneTest::Runner {
  int32_t map[kGlowBlendModeCount];
  ThreadTask kernels[kGlowBlendSlotCount], kernels_sse41[kGlowBlendSlotCount], kernels_avx2[kGlowBlendSlotCount];
  explicit Runner(int workers) : KorvaneTest::Runner(workers) {
    FillGlowBlendTables(map, kernels, kernels_sse41, kernels_avx2);
  }
  int32_t Run(int32_t slot, GlowBlendParam& p, int form = 0) {
    const ThreadTask task = form == KorvaneTest::kAvx2 ? kernels_avx2[slot] : form ? kernels_sse41[slot] : kernels[slot];
    return adapter.RunTaskByMultiThread(task, &p, nullptr, p.roi);
  }
};

// Every byte slot through the row paths of every form over the whole of glow
// and photo (roi at the origin): each equal to the per-pixel function. With
// all_written the SIMD outputs start from different bytes than the plain one,
// so a pixel a path leaves unwritten shows.
void ExpectRowPathsAgree(Image& glow, Image& photo, int32_t opacity, bool all_written) {
  SmartBuffer gv = glow.View(), pv = photo.View();
  Runner r(2);
  for (int32_t slot = 0; slot < kGlowBlendSlotCount; ++slot) {
    if (IsGlowFloatSlot(slot)) continue;
    Image want(glow.w, glow.h, PIXEL_BGRA32, 0x5A);
    for (int32_t i = 0; i < glow.w * glow.h; ++i)
      GlowBlendPixel(slot, &glow.px[i * 4], &photo.px[i * 4], &want.px[i * 4], opacity);
    for (int form : KorvaneTest::Forms()) {
      Image out(glow.w, glow.h, PIXEL_BGRA32, all_written && form ? 0xA5 : 0x5A);
      SmartBuffer ov = out.View();
      GlowBlendParam p;
      p.glow = &gv, p.photo = &pv, p.dst = &ov, p.roi = {0, 0, glow.w, glow.h}, p.opacity = opacity;
      ASSERT_EQ(r.Run(slot, p, form), S_OK);
      ASSERT_EQ(out.px, want.px) << "slot " << slot << " width " << glow.w << " opacity " << opacity << ", "
                                 << KorvaneTest::FormName(form) << ": "
                                 << KorvaneTest::FirstDifference(out.px, want.px, glow.w);
    }
  }
}

// Awkward widths with random pixels (alphas from 0, or from 2 so that every
// pixel is written; 25 and 41 end on an eight-pixel step after sixteen-pixel
// ones); then all 256 x 256 (glow, photo) values in the blue channel, other
// channels varied, alphas varied or all opaque (the common case, with its own
// fast forms), 264 columns wide so that all 256 real ones go through the
// eight-pixel loop.
TEST(GlowBlendRows, EightPixelPathMatchesPerPixelPath) {
  std::mt19937 rng(11);
  for (int32_t w : {1, 3, 7, 8, 9, 15, 16, 17, 25, 33, 41})
    for (int min_alpha : {0, 2}) {
      Image glow = Random(w, 5, rng, min_alpha), photo = Random(w, 5, rng);
      ExpectRowPathsAgree(glow, photo, 200, min_alpha > 0);
    }
  for (bool opaque : {false, true})
    for (int32_t opacity : {255, 200, 1}) {
      Image glow(264, 256), photo(264, 256);
      for (int y = 0; y < 256; ++y)
        for (int x = 0; x < 264; ++x) {
          uint8_t *s = &glow.px[(y * 264 + x) * 4], *d = &photo.px[(y * 264 + x) * 4];
          s[0] = Px(y), s[1] = Px(255 - y), s[2] = Px(x * 5 + y), s[3] = Px(opaque ? 255 : 255 - (x & 7) * 9);
          d[0] = Px(x), d[1] = Px(x * 3 + 1), d[2] = Px(255 - x), d[3] = Px(opaque ? 255 : 255 - (y & 3) * 60);
        }
      ExpectRowPathsAgree(glow, photo, opacity, false);
    }
}

// The float modes' rows of every form against the plain rows: glow values
// in and out of 0..1 (NaN too), greys, pure hues on the sector edges, photo
// alphas from 0, awkward widths. A glow equal to the photo (on the 0..1
// scale) has the photo's hue and chroma, so hue mode rebuilds an opaque
// photo; so does saturation where the photo is neither near grey nor very
// light or dark.
TEST(GlowBlendRows, FloatModeRowsOfEveryFormMatchThePlainRowsAndKeepThePhotoAsItsOwnGlow) {
  std::mt19937 rng(13);
  std::uniform_real_distribution<float> wide(-0.2f, 1.3f);
  Runner r(2);
  for (int32_t w : {1, 7, 8, 9, 17, 33, 70}) {
    const int32_t h = 6;
    Image photo = Random(w, h, rng), glow_f(w, h, PIXEL_FLOAT96), opaque(w, h), itself(w, h, PIXEL_FLOAT96), kept(w, h);
    float *gf = reinterpret_cast<float*>(glow_f.px.data()), *sf = reinterpret_cast<float*>(itself.px.data());
    const float edges[][3] = {{0, 0, 1}, {0, 1, 1}, {0, 1, 0}, {1, 1, 0}, {1, 0, 0}, {1, 0, 1}, {0.5f, 0.5f, 0.5f}};
    for (int32_t i = 0; i < w * h; ++i) {
      for (int k = 0; k < 3; ++k) gf[i * 3 + k] = i % 5 == 0 ? edges[(i / 5) % 7][k] : wide(rng);
      if (i % 23 == 4) gf[i * 3 + 1] = std::nanf("");
      if (i % 11 == 3) photo.px[i * 4 + 1] = photo.px[i * 4 + 2] = photo.px[i * 4];  // a grey photo pixel
      for (int k = 0; k < 3; ++k) sf[i * 3 + k] = (opaque.px[i * 4 + k] = photo.px[i * 4 + k]) / 255.0f;
      opaque.px[i * 4 + 3] = 255;
    }
    SmartBuffer pv = photo.View(), fv = glow_f.View(), qv = opaque.View(), sv = itself.View(), kv = kept.View();
    for (int32_t slot : {14, 15}) {
      KorvaneTest::ExpectFormsMatchPlain(
          [&](const KorvaneTest::Form& form) {
            Image out(w, h, PIXEL_BGRA32, 0x5A);
            SmartBuffer ov = out.View();
            GlowBlendParam p;
            p.glow_f = &fv, p.photo = &pv, p.dst = &ov, p.roi = {0, 0, w, h}, p.opacity = 230;
            EXPECT_EQ(r.Run(slot, p, form), S_OK);
            return out.px;
          },
          "slot " + std::to_string(slot) + " width " + std::to_string(w), w);
      GlowBlendParam p;
      p.glow_f = &sv, p.photo = &qv, p.dst = &kv, p.roi = {0, 0, w, h};
      ASSERT_EQ(r.Run(slot, p), S_OK);
      for (int32_t i = 0; i < w * h; ++i) {
        const uint8_t* d = &opaque.px[i * 4];
        const int hi = std::max({d[0], d[1], d[2]}), lo = std::min({d[0], d[1], d[2]});
        const double l = (7209.0 * d[0] + 38665.0 * d[1] + 19660.0 * d[2]) / 65536;
        if (slot == 15 && (hi - lo < 5 || l > 180 || l < 60)) continue;
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(kept.px[i * 4 + k], d[k], 3) << "slot " << slot << " px " << i;
        EXPECT_EQ(kept.px[i * 4 + 3], 255);
      }
    }
  }
}

TEST(GlowBlendRows, BadInputGetsDefinedCodes) {
  std::mt19937 rng(1);
  Image glow = Random(8, 8, rng), photo = Random(8, 8, rng), out(8, 8), small(4, 4), gray(8, 8, PIXEL_GRAY8);
  SmartBuffer gv = glow.View(), pv = photo.View(), ov = out.View(), sv = small.View(), grv = gray.View();
  SmartBuffer empty;
  Runner r(2);
  auto run = [&](int32_t slot, auto tweak, int form = 0) {
    GlowBlendParam p;
    p.glow = &gv, p.photo = &pv, p.dst = &ov, p.roi = {0, 0, 8, 8};
    tweak(p);
    return r.Run(slot, p, form);
  };
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.glow = nullptr; }), E_POINTER);
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.photo = &empty; }), E_POINTER);
  EXPECT_EQ(run(14, [&](GlowBlendParam&) {}), E_POINTER);  // float slot without glow_f
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.glow = &grv; }), E_NOTIMPL);
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.dst = &grv; }), E_NOTIMPL);
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.roi = {0, 0, 9, 8}; }), E_INVALIDARG);
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.roi = {-1, 0, 7, 8}; }), E_INVALIDARG);
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.roi = {4, 0, 2, 8}; }), E_INVALIDARG);
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.glow = &sv; }), E_INVALIDARG);
  // A dst smaller than the roi is written only where it exists.
  std::fill(small.px.begin(), small.px.end(), 0);
  for (int form : KorvaneTest::Forms()) {
    EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.dst = &sv; }, form), S_OK) << KorvaneTest::FormName(form);
  }
  // An empty roi writes nothing and succeeds.
  EXPECT_EQ(run(30, [&](GlowBlendParam& p) { p.roi = {3, 3, 3, 3}; }), S_OK);
}

}  // namespace
