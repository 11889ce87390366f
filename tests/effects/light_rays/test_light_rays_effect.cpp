#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <vector>

#include "TestSupport.h"
#include "core/Random.h"
#include "core/SmartBuffer.h"
#include "effects/LightTestSupport.h"
#include "effects/light_rays/LightRaysEffect.h"

using namespace Korvane;
using KorvaneTest::EffectRig;
using KorvaneTest::FirstDifference;
using KorvaneTest::TestImage;

namespace {

using Bytes = std::vector<uint8_t>;
using Tweak = std::function<void(LightRaysParam&)>;

// An opaque black photo with white squares of side `side` centred at the points.
Bytes Spots(int w, int h, const std::vector<std::pair<int, int>>& centres, int side, uint8_t b = 255, uint8_t g = 255,
            uint8_t r = 255) {
  Bytes img(static_cast<size_t>(w) * h * 4, 0);
  for (size_t i = 3; i < img.size(); i += 4) img[i] = 255;
  for (const auto& c : centres)
    for (int y = c.second - side / 2; y < c.second - side / 2 + side; ++y)
      for (int x = c.first - side / 2; x < c.first - side / 2 + side; ++x) {
        if (x < 0 || y < 0 || x >= w || y >= h) continue;
        uint8_t* p = &img[(static_cast<size_t>(y) * w + x) * 4];
        p[0] = b, p[1] = g, p[2] = r;
      }
  return img;
}

// Gradients, noise and bright patches: something for every stage to do.
Bytes Photo(int w, int h, uint32_t seed = 5) {
  Bytes img = KorvaneTest::RandomBytes(static_cast<size_t>(w) * h * 4, seed);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &img[(static_cast<size_t>(y) * w + x) * 4];
      if (((x / 5) + (y / 3)) % 4 == 0) p[0] = p[1] = p[2] = static_cast<uint8_t>(235 + (p[0] & 15));
      p[3] = static_cast<uint8_t>(200 + (p[3] & 31));
    }
  return img;
}

// Settings that use every stage: visible rays, softness, colour.
LightRaysParam Base(Bytes& src, int w, int h) {
  LightRaysParam p;
  p.src = MakeSmartBufferView(src.data(), w, h);
  p.roi = Rect{0, 0, w, h};
  p.ray_level = 0.8f, p.ray_softness = static_cast<float>(std::min(2, std::max(w, h) / 32));
  p.ray_length = static_cast<float>(std::max(w, h)) * 0.4f, p.hlr_threshold = 200.0f, p.blend_strength = 1.0f;
  p.center_x = w / 2, p.center_y = h / 3, p.ray_angle = 30.0f, p.hue_shift = 0.1f, p.color_param = 0.3f;
  return p;
}

// Renders `src` (w x h) with Base settings and the tweak; dst is roi-sized.
Bytes Render(Bytes src, int w, int h, const Tweak& tweak, int workers = 2,
             const SystemInfo& info = KorvaneTest::Level(SIMD_SSE41), int32_t* code = nullptr) {
  EffectRig<LightRaysEffect> rig(workers);
  rig->SetSystemInfo(info);
  EXPECT_EQ(rig->Initialize(w, h), S_OK);
  // The output is sized by the tweaked roi, then the tweak runs again on the
  // record that carries it, so it can spoil dst too.
  LightRaysParam p = Base(src, w, h);
  tweak(p);
  const int dw = std::max(RectWidth(p.roi), 0), dh = std::max(RectHeight(p.roi), 0);
  Bytes dst(static_cast<size_t>(dw) * dh * 4, 0x5A);
  p = Base(src, w, h);
  p.dst = MakeSmartBufferView(dst.data(), dw, dh);
  tweak(p);
  const int32_t hr = rig->Process(p);
  if (code) *code = hr;
  else EXPECT_EQ(hr, S_OK);
  return dst;
}

// How much light the rays added at (x, y): the largest channel increase.
int Added(const Bytes& src, const Bytes& dst, int w, int x, int y) {
  int most = 0;
  for (int c = 0; c < 3; ++c) {
    const size_t i = (static_cast<size_t>(y) * w + x) * 4 + c;
    most = std::max(most, dst[i] - src[i]);
  }
  return most;
}

}  // namespace

// ---------------------------------------------------------------- sizes, tables, lifecycle

// Half size rounded half up (2.5 -> 3, 3.5 -> 4), the diagonal of 3 x 4 is
// 5, plus one; Process needs an effect prepared for the photo's size, the
// same size again changes nothing, and a release forgets it.
TEST(LightRaysEffect, SizesLifecycleAndRelease) {
  EffectRig<LightRaysEffect> rig;
  EXPECT_EQ(rig->Initialize(0, 5), E_INVALIDARG);
  EXPECT_EQ(rig->Initialize(5, -1), E_INVALIDARG);
  ASSERT_EQ(rig->Initialize(5, 7), S_OK);
  EXPECT_EQ(std::vector<int32_t>({rig->GetResizedWidth(), rig->GetResizedHeight(), rig->GetMaxPolarWidth(),
                                  rig->GetMaxPolarHeight(), rig->GetMaxRotateWidth(), rig->GetMaxRotateHeight()}),
            std::vector<int32_t>({3, 4, 6, 3601, 6, 6}));
  ASSERT_EQ(rig->Initialize(4000, 3000), S_OK);
  EXPECT_EQ(rig->GetResizedWidth(), 2000);
  EXPECT_EQ(rig->GetMaxPolarWidth(), 2501);
  std::vector<double> none;
  Mt19937 gen(0);
  EXPECT_EQ(LightRaysEffect::GenerateRandomAngles(none, 0, gen), E_INVALIDARG);
  EXPECT_EQ(LightRaysEffect::CalAnimatedAngles(none, 0, 0, 1, 4), E_INVALIDARG);
  EXPECT_EQ(rig->ReleaseBuffer(), S_OK);
  EXPECT_EQ(rig->GetResizedWidth(), 0);
  EXPECT_TRUE(rig->GetRadialAngles().empty());

  const int w = 24, h = 16;
  Bytes src = Photo(w, h), dst(static_cast<size_t>(w) * h * 4);
  LightRaysParam p = Base(src, w, h), empty = p;
  p.dst = MakeSmartBufferView(dst.data(), w, h);
  empty.src = MakeSmartBufferView(src.data(), 0, 0), empty.dst = MakeSmartBufferView(dst.data(), 0, 0);
  empty.roi = Rect{0, 0, 0, 0};
  EXPECT_EQ(rig->Process(p), E_INVALIDARG);      // not the prepared size
  EXPECT_EQ(rig->Process(empty), E_INVALIDARG);  // an empty roi
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(rig->Initialize(w, h), S_OK);
    EXPECT_EQ(rig->Process(p), S_OK);
    EXPECT_EQ(rig->Initialize(w, h), S_OK);
    EXPECT_EQ(rig->Process(p), S_OK);
    EXPECT_EQ(rig->ReleaseBuffer(), S_OK);
    EXPECT_EQ(rig->Process(p), E_INVALIDARG);
  }
}

TEST(LightRaysEffect, ValidationRunsInOrderWithItsCodes) {
  const int w = 64, h = 40;  // ray_softness may reach 64 / 32 = 2
  static Bytes gray(static_cast<size_t>(w) * h, 200);
  struct Case {
    const char* what;
    int32_t code;
    void (*tweak)(LightRaysParam&);
  };
  // Many cases carry a second fault that a later step would report.
  // clang-format off
  const Case cases[] = {
      {"src width", E_INVALIDARG, [](LightRaysParam& p) { p.src.width = 63, p.dst.pix_fmt = PIXEL_GRAY8; }},
      {"src height", E_INVALIDARG, [](LightRaysParam& p) { p.src.height = 41; }},
      {"src data", E_INVALIDARG, [](LightRaysParam& p) { p.src.data.reset(), p.color_param = 2; }},
      {"mask format", E_INVALIDARG, [](LightRaysParam& p) {
         p.mask = MakeSmartBufferView(gray.data(), 16, 10), p.mask.width = 64, p.mask.height = 40; }},
      {"mask size", E_INVALIDARG, [](LightRaysParam& p) { p.mask = MakeSmartBufferView(gray.data(), 63, 40, PIXEL_GRAY8); }},
      {"dst size", E_INVALIDARG, [](LightRaysParam& p) { p.dst.width = 20, p.hue_shift = 3; }},
      {"color_param", E_INVALIDARG, [](LightRaysParam& p) { p.color_param = -1.01f, p.src.pix_fmt = PIXEL_BGR24; }},
      {"hue_shift", E_INVALIDARG, [](LightRaysParam& p) { p.hue_shift = std::nanf(""), p.dst.pix_fmt = PIXEL_GRAY8; }},
      {"src format", E_NOTIMPL, [](LightRaysParam& p) { p.src.pix_fmt = PIXEL_BGR24, p.ray_level = 2; }},
      {"dst format", E_NOTIMPL, [](LightRaysParam& p) { p.dst.pix_fmt = PIXEL_GRAY8, p.ray_level = 2; }},
      {"ray_level", E_INVALIDARG, [](LightRaysParam& p) { p.ray_level = 1.01f; }},
      {"ray_softness", E_INVALIDARG, [](LightRaysParam& p) { p.ray_softness = 2.01f; }},
      {"hlr_threshold", E_INVALIDARG, [](LightRaysParam& p) { p.hlr_threshold = 255.5f; }},
      {"blend_strength", E_INVALIDARG, [](LightRaysParam& p) { p.blend_strength = -0.1f; }},
      {"ray_length", E_INVALIDARG, [](LightRaysParam& p) { p.ray_length = 64.5f; }},
      {"lampshade_angle", E_INVALIDARG, [](LightRaysParam& p) { p.lampshade_angle = 361; }},
      {"lampshade_spread", E_INVALIDARG, [](LightRaysParam& p) { p.lampshade_spread = 181; }},
      {"ray_radius", E_INVALIDARG, [](LightRaysParam& p) { p.ray_radius = -1; }},
      {"ray_angle", E_INVALIDARG, [](LightRaysParam& p) { p.ray_angle = 360.5f; }},
      {"roi outside", E_INVALIDARG, [](LightRaysParam& p) { p.roi = Rect{1, 0, 65, 40}; }},
      {"negative roi", E_INVALIDARG, [](LightRaysParam& p) { p.roi = Rect{-2, 0, 62, 40}; }},
      {"short src rows", E_INVALIDARG, [](LightRaysParam& p) { p.src.stride = 4 * 63, p.dst.data.reset(); }},
      {"dst data", E_POINTER, [](LightRaysParam& p) { p.dst.data.reset(); }},
      // Unchecked fields: the centre is clamped, lampshade_param may be anything.
      {"far centre", S_OK, [](LightRaysParam& p) { p.center_x = INT32_MIN + 1, p.center_y = 1 << 30; }},
      {"nan lampshade", S_OK, [](LightRaysParam& p) { p.lampshade_spread = 40, p.lampshade_param = std::nanf(""); }},
      {"no lampshade", S_OK, [](LightRaysParam& p) { p.lampshade_spread = 0, p.lampshade_param = -5; }},
      {"no frames", S_OK, [](LightRaysParam& p) {
         p.anime_frame_count = 0, p.anime_frame_index = -3, p.animate_rays = 1, p.animate_hue = 1; }},
      {"limits", S_OK, [](LightRaysParam& p) {
         p.ray_length = 64, p.ray_radius = 64, p.ray_softness = 2, p.ray_angle = 360; }},
  };
  // clang-format on
  Bytes src = Photo(w, h);
  for (const Case& c : cases) {
    int32_t code = 1;
    const Bytes dst = Render(src, w, h, c.tweak, 2, KorvaneTest::Level(SIMD_SSE41), &code);
    EXPECT_EQ(code, c.code) << c.what;
    EXPECT_TRUE(c.code == S_OK || dst == Bytes(dst.size(), 0x5A)) << c.what << ": dst written on a refusal";
  }
}

// ---------------------------------------------------------------- edge cases

TEST(LightRaysEffect, NoLengthCopiesAndNoStrengthKeepsTheRoiExactly) {
  const int w = 37, h = 23;
  Bytes src = Photo(w, h);
  const Rect roi{3, 2, 30, 21};
  for (float length : {0.0f, 15.0f}) {
    EffectRig<LightRaysEffect> rig;
    ASSERT_EQ(rig->Initialize(w, h), S_OK);
    LightRaysParam p = Base(src, w, h);
    p.roi = roi, p.ray_length = length;
    p.blend_strength = length > 0 ? 0.0f : 1.0f;  // rays run, but nothing is added
    TestImage dst(RectWidth(roi), RectHeight(roi), PIXEL_BGRA32, 12);
    p.dst = SmartBufferView(dst.buf);
    ASSERT_EQ(rig->Process(p), S_OK);
    EXPECT_TRUE(dst.GuardsIntact());
    const Bytes want = LightTest::Crop(src, w, roi);
    EXPECT_EQ(dst.Packed(), want) << "length " << length << ": " << FirstDifference(dst.Packed(), want, RectWidth(roi));
  }
}

TEST(LightRaysEffect, RadialRaysLightTheFarSideOfASpotAlongTheLineFromTheCentre) {
  const int w = 300, h = 200;
  Bytes src = Spots(w, h, {{120, 100}}, 8);
  const auto radial = [](LightRaysParam& p) {
    p.center_x = 60, p.center_y = 100, p.ray_length = 60, p.ray_softness = 0, p.ray_level = 1;
    p.hue_shift = p.color_param = 0;
  };
  const Bytes dst = Render(src, w, h, radial);
  int far = 0;
  for (int x = 128; x < 170; ++x) far = std::max(far, Added(src, dst, w, x, 100));
  EXPECT_GT(far, 40);
  // Light fades along the ray and is gone past r0 + length.
  EXPECT_GT(Added(src, dst, w, 130, 100), Added(src, dst, w, 175, 100));
  for (int x = 194; x < w; ++x) EXPECT_EQ(Added(src, dst, w, x, 100), 0) << x;
  // Nothing on the near side, nor across the spot, nor around the centre.
  for (int x = 40; x < 112; ++x) EXPECT_EQ(Added(src, dst, w, x, 100), 0) << x;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const double angle = std::atan2(y - 100.0, x - 60.0);
      if (std::fabs(angle) > 0.15) {
        ASSERT_EQ(Added(src, dst, w, x, y), 0) << x << ", " << y;
      }
    }

  // hlr_threshold 255: a spot of lightness 254 is no source, a white one is.
  const auto only_white = [&](LightRaysParam& p) { radial(p), p.hlr_threshold = 255; };
  Bytes almost = Spots(w, h, {{120, 100}}, 8, 255, 255, 253);
  EXPECT_EQ(Render(almost, w, h, only_white), almost);
  EXPECT_GT(Added(src, Render(src, w, h, only_white), w, 135, 100), 20);
}

TEST(LightRaysEffect, DirectionalRaysLightTheDownstreamSideOnly) {
  const int w = 240, h = 240;
  Bytes src = Spots(w, h, {{120, 120}}, 8);
  struct Dir { float angle; int dx, dy; };  // 90 is up: -y
  for (const Dir& d : {Dir{0, 1, 0}, Dir{90, 0, -1}, Dir{180, -1, 0}, Dir{270, 0, 1}}) {
    const Bytes dst = Render(src, w, h, [&](LightRaysParam& p) {
      p.ray_mode = LIGHT_RAYS_DIRECTIONAL, p.ray_angle = d.angle, p.ray_length = 60, p.ray_softness = 0;
      p.ray_level = 1, p.center_x = 17, p.center_y = 200;  // the centre only anchors the shaft pattern
    });
    int down = 0;
    for (int k = 10; k < 40; ++k) down = std::max(down, Added(src, dst, w, 120 + d.dx * k, 120 + d.dy * k));
    EXPECT_GT(down, 40) << d.angle;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        // Along the beam (from 4 pixels behind the spot's back edge) and
        // across it (half its side plus 4 pixels: the two resamplings).
        const int along = (x - 120) * d.dx + (y - 120) * d.dy;
        const int across = std::abs((x - 120) * d.dy - (y - 120) * d.dx);
        if (along >= -8 && along <= 72 && across <= 8) continue;
        ASSERT_EQ(Added(src, dst, w, x, y), 0) << d.angle << ": " << x << ", " << y;
      }
  }
}

TEST(LightRaysEffect, TheLampshadeConeExcludesAnglesOutsideIt) {
  const int w = 240, h = 240;
  Bytes src = Spots(w, h, {{120, 120}}, 30);  // a bright disc around the centre
  for (float spread : {180.0f, 30.0f}) {
    const Bytes dst = Render(src, w, h, [&](LightRaysParam& p) {
      p.center_x = p.center_y = 120, p.ray_length = 100, p.ray_softness = 0, p.ray_level = 1;
      p.lampshade_angle = 45, p.lampshade_spread = spread, p.lampshade_param = 0;  // up and to the right
    });
    int inside = 0, outside = 0;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const double r = std::hypot(x - 120.0, y - 120.0);
        if (r < 40 || r > 110) continue;
        double deg = std::atan2(120.0 - y, x - 120.0) * 180.0 / M_PI - 45.0;
        deg = std::fabs(std::remainder(deg, 360.0));
        if (deg < 25) inside = std::max(inside, Added(src, dst, w, x, y));
        if (deg > 35) outside = std::max(outside, Added(src, dst, w, x, y));
      }
    EXPECT_GT(inside, 40) << spread;
    EXPECT_TRUE(spread < 180 ? outside == 0 : outside > 40) << spread << ": " << outside;
  }
}

TEST(LightRaysEffect, CentreIsClampedAndEveryModeButOneIsRadial) {
  const int w = 48, h = 32;
  Bytes src = Photo(w, h);
  const auto at = [&](int cx, int cy, int mode) {
    return Render(src, w, h, [=](LightRaysParam& p) { p.center_x = cx, p.center_y = cy, p.ray_mode = mode; });
  };
  EXPECT_EQ(at(100000, -100000, 0), at(72, -16, 0));  // 1.5 x 48, -0.5 x 32
  EXPECT_EQ(at(-100000, 100000, 0), at(-24, 48, 0));
  EXPECT_NE(at(72, -16, 0), at(60, -10, 0));  // inside the limits the centre matters
  const Bytes radial = at(20, 12, 0);
  EXPECT_EQ(at(20, 12, 2), radial);
  EXPECT_EQ(at(20, 12, -1), radial);
  EXPECT_NE(at(20, 12, 1), radial);
}

// ---------------------------------------------------------------- loops

TEST(LightRaysEffect, LoopsJoinSmoothlyAndModeTwoKeepsItsSpokes) {
  const int w = 160, h = 120, n = 6;
  Bytes src = Spots(w, h, {{80, 60}, {40, 30}, {120, 90}}, 10);
  for (int mode : {0, 1}) {
    const auto frame = [&](int i) {
      return Render(src, w, h, [&](LightRaysParam& p) {
        p.ray_mode = mode, p.center_x = 80, p.center_y = 60, p.ray_length = 80;
        p.anime_frame_count = n, p.anime_frame_index = i, p.animate_rays = p.animate_hue = 1;
        p.hue_shift = 0, p.color_param = 0.5f;
      });
    };
    std::vector<Bytes> frames;
    for (int i = 0; i <= n; ++i) frames.push_back(frame(i));
    EXPECT_EQ(frames[n], frames[0]) << mode;
    for (int k : {1, 4}) EXPECT_EQ(frame(k + n * 1000), frames[k]) << mode << " " << k;  // past the loop: in it
    std::vector<double> steps;
    for (int i = 0; i < n; ++i) steps.push_back(KorvaneTest::MeanAbsDiff(frames[i], frames[i + 1]));
    const double smallest = *std::min_element(steps.begin(), steps.end() - 1);
    const double largest = *std::max_element(steps.begin(), steps.end() - 1);
    EXPECT_GT(smallest, 0.0) << mode << ": the loop does not move";
    EXPECT_LE(steps.back(), largest * 1.5) << mode << ": the seam jumps";
  }
  // ray_mode 2 draws radial rays but animates the shaft angles: the spokes stay.
  const auto mode2 = [&](int i) {
    return Render(src, w, h, [&](LightRaysParam& p) {
      p.ray_mode = 2, p.anime_frame_count = n, p.anime_frame_index = i, p.animate_rays = 1;
    });
  };
  EXPECT_EQ(mode2(0), mode2(2));
}

// ---------------------------------------------------------------- forms and workers

// Every kernel form on two and on eight workers gives the plain form's image
// on one worker, with photo, mask and output handed over as applications do:
// padded rows of unequal strides whose padding and guard bytes stay untouched.
TEST(LightRaysEffect, KernelFormsWorkerCountsAndPaddedRowsGiveThePlainImage) {
  struct Size { int w, h; };
  for (const Size s : {Size{1, 1}, Size{3, 5}, Size{17, 9}, Size{33, 21}, Size{70, 45}, Size{166, 94}}) {
    Bytes src = Photo(s.w, s.h, 11 + s.w);
    Bytes mask_bytes = KorvaneTest::RandomBytes(static_cast<size_t>(s.w) * s.h, 3);
    for (int mode : {0, 1}) {
      // One region reaching the right edge, one stopping short of it.
      const Rect roi{s.w / 4, s.h / 3, mode ? s.w : s.w - s.w / 5, s.h};
      const Tweak tweak = [&](LightRaysParam& p) {
        p.ray_mode = mode, p.roi = roi, p.mask = MakeSmartBufferView(mask_bytes.data(), s.w, s.h, PIXEL_GRAY8);
        p.lampshade_spread = 100, p.ray_radius = static_cast<float>(std::max(s.w, s.h)) / 2;
      };
      const Bytes plain = Render(src, s.w, s.h, tweak, 1, KorvaneTest::Level(SIMD_NONE));
      for (const KorvaneTest::Form& form : KorvaneTest::Forms())
        for (int workers : {2, 8}) {
          TestImage photo(s.w, s.h, PIXEL_BGRA32, 12), mask(s.w, s.h, PIXEL_GRAY8, 3),
              out(RectWidth(roi), RectHeight(roi), PIXEL_BGRA32, 20);
          photo.Fill(src);
          mask.Fill(mask_bytes);
          EffectRig<LightRaysEffect> rig(workers, form);
          ASSERT_EQ(rig->Initialize(s.w, s.h), S_OK);
          Bytes unused = src;
          LightRaysParam p = Base(unused, s.w, s.h);
          tweak(p);
          p.src = SmartBufferView(photo.buf), p.mask = SmartBufferView(mask.buf), p.dst = SmartBufferView(out.buf);
          ASSERT_EQ(rig->Process(p), S_OK);
          EXPECT_EQ(FirstDifference(out.Packed(), plain, out.buf.width), "")
              << form.name << " " << workers << " workers " << s.w << "x" << s.h << " mode " << mode;
          EXPECT_TRUE(photo.GuardsIntact() && mask.GuardsIntact() && out.GuardsIntact()) << s.w << "x" << s.h;
        }
    }
  }
}

// ---------------------------------------------------------------- failures

TEST(LightRaysEffect, AFailingStageIsLoggedWhereItFailsAndAsTotalCost) {
  // Without a pool every parallel call fails (E_INVALIDARG), so the first
  // stage of each road fails and reports up.
  const int w = 16, h = 12;
  Bytes src = Photo(w, h), dst(static_cast<size_t>(w) * h * 4, 0x5A);
  LightRaysEffect fx(nullptr);
  fx.SetSystemInfo(KorvaneTest::Level(SIMD_NONE));
  ASSERT_EQ(fx.Initialize(w, h), S_OK);
  LightRaysParam p = Base(src, w, h);
  p.dst = MakeSmartBufferView(dst.data(), w, h);
  testing::internal::CaptureStderr();
  EXPECT_EQ(fx.Process(p), E_INVALIDARG);
  std::string log = testing::internal::GetCapturedStderr();
  for (const char* line : {"(src downsample) - Return Code: 80070057",
                           "[Korvane] [Korvane] DownSampleInput() Error! - Return Code: 80070057",
                           "[Korvane] [Korvane](Total cost) - Return Code: 80070057"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << " not in:\n" << log;
  }
  EXPECT_LT(log.find("DownSampleInput()"), log.find("Total cost"));
  p.ray_length = 0;
  testing::internal::CaptureStderr();
  EXPECT_EQ(fx.Process(p), E_INVALIDARG);
  log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("[Korvane] [Korvane](MemCopyROI) - Return Code: 80070057"), std::string::npos) << log;
  EXPECT_EQ(log.find("Total cost"), std::string::npos) << log;
  EXPECT_EQ(dst, Bytes(dst.size(), 0x5A));
}

// A render of a region is the crop of the render of the whole photo, for
// both kinds of rays, softened and in a lampshade.
TEST(LightRaysEffect, RegionRendersAreCropsOfTheWholeRender) {
  const int w = 300, h = 180;
  Bytes src = Photo(w, h);
  for (int mode : {0, 1}) {
    const auto tweak = [mode](LightRaysParam& p) {
      p.ray_mode = mode, p.ray_softness = 5, p.lampshade_spread = mode == 0 ? 70.0f : 180.0f, p.center_x = 40;
    };
    const Bytes whole = Render(src, w, h, tweak);
    for (const Rect& r : LightTest::TileRegions(w, h)) {
      const Bytes part = Render(src, w, h, [&](LightRaysParam& p) { tweak(p), p.roi = r; });
      ASSERT_EQ(FirstDifference(part, LightTest::Crop(whole, w, r), RectWidth(r)), "")
          << "mode " << mode << " region " << r.left << "," << r.top << "," << r.right << "," << r.bottom;
    }
  }
}

// A photo one pixel across and as long as a photo may be keeps its ray space
// as thin as itself, whatever the centre and the angle.
TEST(LightRaysEffectDeathTest, ThinPhotosStaySmall) {
  const auto run = [] {
    Bytes tall = Photo(1, kMaxImageSide), wide = Photo(kMaxImageSide, 1), out(tall.size());
    EffectRig<LightRaysEffect> rig(1);
    LightTest::ExitWithAddressRoom(150u << 20, [&] {
      for (auto [w, h] : {std::pair<int, int>{1, kMaxImageSide}, {kMaxImageSide, 1}}) {
        if (rig->Initialize(w, h) != S_OK) return false;
        for (int mode : {0, 1}) {
          LightRaysParam p = Base(w == 1 ? tall : wide, w, h);
          p.dst = MakeSmartBufferView(out.data(), w, h);
          p.ray_mode = mode, p.ray_angle = 45.0f, p.ray_length = static_cast<float>(kMaxImageSide);
          if (rig->Process(p) != S_OK) return false;
        }
      }
      return true;
    });
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(LightRaysEffectDeathTest, ARefusedWorkingImageIsLoggedWithItsOwnLine) {
#if defined(KORVANE_TEST_SANITIZED)
  GTEST_SKIP() << "the sanitizers reserve more address space than the limit leaves";
#endif
  // In a child process whose address space has no room for a 48 MB image:
  // the first working image is refused, logged as the call that made it and
  // returned as E_OUTOFMEMORY, leaving an effect that Process refuses
  // (E_FAIL: nothing to work with). The largest photo is refused the same
  // way, with no size wrapping round.
  const auto run = [] {
    EffectRig<LightRaysEffect> rig(1);
    std::vector<uint8_t> px(16 * 4);
    LightTest::ExitWithAddressRoom(24u << 20, [&] {
      if (rig->Initialize(4000, 3000) != E_OUTOFMEMORY || rig->Initialize(65536, 65536) != E_OUTOFMEMORY ||
          rig->Initialize(65537, 8) != E_INVALIDARG || rig->Initialize(4000, 3000) != E_OUTOFMEMORY) {
        return false;
      }
      LightRaysParam p;
      p.src = MakeSmartBufferView(px.data(), 4000, 3000), p.dst = MakeSmartBufferView(px.data(), 4, 4);
      p.roi = Rect{0, 0, 4, 4};
      return rig->Process(p) == E_FAIL;
    });
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0),
              "CreateSmartBufferData\\( m_hlr_buff, m_img_w, m_img_h, PIXEL_BGRA32\\) Error! - Return Code: 8007000e");
}
