// Bokeh: its own rules, the record checks in their order, and whole frames.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <iterator>
#include <random>
#include <tuple>
#include <vector>

#include "TestSupport.h"
#include "core/HslColor.h"
#include "core/ImageChecks.h"
#include "core/SmartBuffer.h"
#include "effects/LightTestSupport.h"
#include "effects/bokeh/BokehEffect.h"
#include "effects/focus_blur/FocusBlurEffect.h"

namespace Korvane {
namespace {

using Bytes = std::vector<uint8_t>;
using KorvaneTest::EffectRig;
using KorvaneTest::TestImage;

constexpr int32_t kW = 320, kH = 200;
const std::vector<std::pair<int32_t, int32_t>> kDots = {{40, 30}, {250, 50}, {160, 120}, {290, 170}, {70, 160}};

// A dark photo with a soft gradient and a few small bright dots (the light points).
TestImage Photo(int32_t pad = 0) {
  TestImage img(kW, kH, PIXEL_BGRA32, pad);
  std::mt19937 rng(9);
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x) {
      const uint8_t px[4] = {static_cast<uint8_t>(30 + x / 8 + rng() % 3), static_cast<uint8_t>(20 + y / 8 + rng() % 3),
                             static_cast<uint8_t>(25 + rng() % 3), 255};
      std::memcpy(img.Row(y) + 4 * x, px, 4);
    }
  for (auto [cx, cy] : kDots)
    for (int32_t y = cy - 1; y <= cy + 1; ++y)
      for (int32_t x = cx - 1; x <= cx + 1; ++x) std::memcpy(img.Row(y) + 4 * x, "\x78\xe6\xff", 3);
  return img;
}

// Guide: bright (in focus) on the left third, dark (background) elsewhere.
TestImage Guide(int32_t pad = 0) {
  TestImage g(kW, kH, PIXEL_GRAY8, pad);
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x) g.Row(y)[x] = x < kW / 3 ? 230 : 10;
  return g;
}

// A soft white disc with a brighter rim.
TestImage Disc(int32_t d = 64) {
  TestImage s(d, d);
  const float c = (d - 1) * 0.5f, r = d * 0.45f;
  for (int32_t y = 0; y < d; ++y)
    for (int32_t x = 0; x < d; ++x) {
      const float dist = std::hypot(x - c, y - c);
      const uint8_t v = dist > r ? 0 : (dist > r - 2.0f ? 255 : 200), px[4] = {v, v, v, 255};
      std::memcpy(s.Row(y) + 4 * x, px, 4);
    }
  return s;
}

struct Frame {
  BokehParam param;
  BokehShapeParam shape;
  Frame(const TestImage& disc) {
    param.anime_frame_count = 8, param.anime_frame_index = 0, param.quality_mode = 1;
    param.bokeh_source_mode = 0;  // sizes from the guide directly
    shape.shape = disc.buf, shape.amount = 1.0f, shape.color_mode = 1;
  }
};

Bytes Render(EffectRig<BokehEffect>& rig, const Frame& f, const TestImage& photo, const TestImage* guide,
             Rect roi = Rect{0, 0, kW, kH}) {
  TestImage out(roi.right - roi.left, roi.bottom - roi.top, PIXEL_BGRA32, 8);
  EXPECT_EQ(rig->Process(&f.param, &f.shape, &photo.buf, guide ? &guide->buf : nullptr, &out.buf, roi), S_OK);
  EXPECT_TRUE(out.GuardsIntact());
  return out.Packed();
}

// Bokeh's own rules: quality mode 0 keeps the full size; disc sizes run from
// trunc(0.03 x 640) = 19 to trunc(0.057 x 640) = 36 made odd; the dominant
// hue votes exactly as RgbToHsl rounds; size identifiers from mask values.
TEST(BokehRules, SizesHuesAndSizeIdentifiers) {
  float r = 0;
  for (int32_t side : {0, 640, 9000})
    EXPECT_TRUE(BokehEffect::CalScaleRatioFor(0, side, r) == S_OK && r == 1.0f) << side;
  ASSERT_EQ(BokehEffect::CalScaleRatioFor(3, 9000, r), S_OK);
  EXPECT_EQ(r, 0.25f);
  const auto sizes = BokehEffect::CalBokehSizes(0.0f, 640);
  EXPECT_EQ(sizes.front(), 19);
  EXPECT_EQ(sizes.back(), 37);
  for (size_t i = 0; i < sizes.size(); ++i) EXPECT_TRUE(sizes[i] % 2 == 1 && (!i || sizes[i] >= sizes[i - 1])) << i;
  EXPECT_GT(BokehEffect::CalBokehSizes(1.0f, 640).back(), 50);  // the 1.5 factor

  // Mostly saturated blue (240 degrees) with some red: the blue bin wins;
  // grey lets nothing vote (0).
  SmartBuffer img;
  CreateSmartBufferData(img, 10, 10, PIXEL_BGRA32);
  for (int32_t i = 0; i < 100; ++i)
    std::memcpy(img.data.get() + 4 * i, i < 70 ? "\xdc\x1e\x1e\xff" : "\x1e\x1e\xdc\xff", 4);
  uint32_t colour = 1;
  ASSERT_EQ(BokehEffect::CalDominantColor(img, colour), S_OK);
  EXPECT_EQ(colour, 24000u);
  std::mt19937 rng(8);
  for (int round = 0; round < 200; ++round) {
    int64_t bins[36] = {};
    for (int32_t i = 0; i < 100; ++i) {
      uint8_t* p = img.data.get() + 4 * i;
      for (int k = 0; k < 3; ++k) p[k] = static_cast<uint8_t>(rng() % 256);
      int32_t h, s, l;
      RgbToHsl(p[2], p[1], p[0], h, s, l);
      if (s > 9792 && l > 9792) ++bins[h / 1000];
    }
    ASSERT_EQ(BokehEffect::CalDominantColor(img, colour), S_OK);
    ASSERT_EQ(colour, static_cast<uint32_t>((std::max_element(bins, bins + 36) - bins) * 1000));
  }
  std::memset(img.data.get(), 90, static_cast<size_t>(img.stride) * img.height);
  ASSERT_EQ(BokehEffect::CalDominantColor(img, colour), S_OK);
  EXPECT_EQ(colour, 0u);

  // Mode 3 inverts around the offset trunc((1 - 0.9) x 255) = 25: 0 gives
  // (255 - 25 - 127) / 14 = 7, 255 gives (25 - 127) / 14 = -7.
  const std::tuple<int32_t, int32_t, float, int32_t> ids[] = {{113, 1, 0.9f, -1}, {114, 1, 0.9f, 0}, {140, 0, 0.9f, 0},
                                                              {141, 0, 0.9f, 1},  {255, 2, 0.9f, 9}, {0, 3, 0.9f, 7},
                                                              {255, 3, 0.9f, -7}, {255, 3, 1.0f, -9}};
  for (auto [value, mode, focus, want] : ids)
    EXPECT_EQ(BokehEffect::CalSizeID(value, mode, focus), want) << value << " mode " << mode;
}

TEST(BokehEffect, RecordChecksInOrder) {
  EffectRig<BokehEffect> rig;
  TestImage photo = Photo(), guide = Guide(), disc = Disc(), out(kW, kH), gray(8, 8, PIXEL_GRAY8), small(kW / 2, kH);
  struct Call {
    Frame g;
    TestImage *src, *mask, *dst;
    Rect roi;
  };
  const Call ok{Frame(disc), &photo, &guide, &out, Rect{0, 0, kW, kH}};
  const auto process = [&](const Call& c) {
    return rig->Process(&c.g.param, &c.g.shape, &c.src->buf, &c.mask->buf, c.dst ? &c.dst->buf : nullptr, c.roi);
  };
  EXPECT_EQ(process(ok), E_FAIL);  // no source
  EXPECT_EQ(rig->SetSource(nullptr), E_POINTER);
  EXPECT_EQ(rig->SetSource(&gray.buf), E_NOTIMPL);
  ImageBuffer long_photo = photo.buf;  // a side over the largest is refused before anything is made
  long_photo.width = kMaxImageSide + 1, long_photo.height = 1;
  EXPECT_EQ(rig->SetSource(&long_photo), E_INVALIDARG);
  ASSERT_EQ(rig->SetSource(&photo.buf), S_OK);
  EXPECT_EQ(rig->Process(&ok.g.param, nullptr, &photo.buf, &guide.buf, &out.buf, ok.roi), E_FAIL);
  // In order, each with a fault a later check would also see: no output;
  // the frame count and index; the output not the region's size, a region
  // width that overflows; a GRAY8 photo, a region outside, a BGRA guide.
  // The shape last: missing pixels (with no built-in disc, or an unknown
  // one), then an empty size or a side so wide its blur radius overflowed.
  const Rect overflows{INT32_MIN, 0, INT32_MAX, kH}, outside{kW / 2, 0, kW + kW / 2, kH};
  const std::pair<int32_t, std::function<void(Call&)>> faults[] = {
      {E_POINTER, [](Call& c) { c.dst = nullptr; }},
      {E_INVALIDARG, [](Call& c) { c.g.param.anime_frame_count = 0, c.g.shape.shape.data = nullptr; }},
      {E_INVALIDARG, [](Call& c) { c.g.param.anime_frame_index = -1; }},
      {E_INVALIDARG, [](Call& c) { c.roi.bottom = kH - 1; }},
      {E_INVALIDARG, [&](Call& c) { c.roi = overflows; }},
      {E_INVALIDARG, [](Call& c) { c.src = c.mask; }},
      {E_INVALIDARG, [&](Call& c) { c.dst = &small, c.roi = outside; }},
      {E_INVALIDARG, [](Call& c) { c.mask = c.src; }},
      {E_POINTER, [](Call& c) { c.g.shape.shape.data = nullptr, c.g.shape.builtin_shape = SHAPE_NONE; }},
      {E_INVALIDARG, [](Call& c) { c.g.shape.shape.data = nullptr, c.g.shape.builtin_shape = SHAPE_CROSS + 1; }},
      {E_INVALIDARG, [](Call& c) { c.g.shape.shape.width = 0; }},
      {E_INVALIDARG,
       [](Call& c) {
         ImageBuffer& s = c.g.shape.shape;
         s.width = (1 << 27) + 1, s.height = 1, s.stride = s.width * 4;
       }},
  };
  for (size_t i = 0; i < std::size(faults); ++i) {
    Call c = ok;
    faults[i].second(c);
    EXPECT_EQ(process(c), faults[i].first) << i;
  }
  EXPECT_EQ(process(ok), S_OK);
  EXPECT_EQ(rig->ReleaseBuffer(), S_OK);
  EXPECT_EQ(process(ok), E_FAIL);
}

// Light only adds, where the dots are; amount 0 shows none. White lights on
// grey: no hue wins the vote, so the global colour mode pastes neutral light.
TEST(BokehEffect, DiscsLightUpTheLightPoints) {
  TestImage photo = Photo(), guide = Guide(), disc = Disc();
  for (bool grey : {false, true}) {
    for (int32_t y = 0; grey && y < kH; ++y)
      for (int32_t x = 0; x < kW; ++x) std::memset(photo.Row(y) + 4 * x, photo.Row(y)[4 * x + 2] == 255 ? 255 : 40, 3);
    EffectRig<BokehEffect> rig;
    ASSERT_EQ(rig->SetSource(&photo.buf), S_OK);
    ASSERT_FALSE(rig->GetBokehList().empty());
    for (const auto& [key, p] : rig->GetBokehList()) {  // on a dot, at twice the size in the detection copy
      bool near = false;
      for (auto [cx, cy] : kDots) near |= std::abs(p.x / 2 - cx) <= 3 && std::abs(p.y / 2 - cy) <= 3;
      EXPECT_TRUE(near) << p.x << "," << p.y;
    }
    Frame f(disc);
    f.shape.color_mode = 0, f.shape.saturation = 1.0f;  // the photo's hues are too weak to count: neutral light
    f.param.paste_switch = 0;
    const Bytes background = Render(rig, f, photo, &guide);
    f.param.paste_switch = 1;
    const Bytes lit = Render(rig, f, photo, &guide);
    int64_t added = 0, near_dots = 0;
    for (size_t i = 0; i < lit.size(); ++i) {
      const int32_t x = static_cast<int32_t>(i / 4 % kW), y = static_cast<int32_t>(i / 4 / kW),
                    gain = lit[i] - background[i];
      ASSERT_EQ(i % 4 == 3 ? lit[i] : 0, i % 4 == 3 ? 255 : 0);  // alpha is the photo's
      ASSERT_GE(gain, 0);
      if (i % 4 == 3) continue;
      ASSERT_TRUE(!grey || i % 4 == 0 || gain == lit[i - 1] - background[i - 1])
          << "neutral light at " << x << "," << y;
      added += gain;
      bool near = false;
      for (auto [cx, cy] : kDots) near |= std::abs(x - cx) <= 12 && std::abs(y - cy) <= 12;
      near_dots += near ? gain : 0;
    }
    EXPECT_GT(added, 0);
    EXPECT_GT(near_dots, added * 9 / 10);
    EXPECT_TRUE(!grey || rig->GetGlobalColor() == 0u);
    f.shape.amount = 0.0f;
    EXPECT_EQ(Render(rig, f, photo, &guide), background);
  }
}

// Slivers and single pixels render and write only the output.
TEST(BokehEffect, TinyThinAndPaddedImages) {
  TestImage small_disc = Disc(9);
  struct Case {
    int32_t w, h;
    Rect roi;
  };
  for (const Case c : {Case{1, 1, {0, 0, 1, 1}}, Case{3, 700, {1, 10, 3, 690}}, Case{900, 2, {0, 0, 900, 2}},
                       Case{7000, 5, {6000, 1, 6999, 4}}}) {
    TestImage photo(c.w, c.h, PIXEL_BGRA32, 4), guide(c.w, c.h, PIXEL_GRAY8, 3);
    photo.FillNoise(c.w);
    guide.FillNoise(c.h);
    EffectRig<BokehEffect> rig;
    ASSERT_EQ(rig->SetSource(&photo.buf), S_OK) << c.w << "x" << c.h;
    for (int32_t quality : {0, 1, 3}) {
      Frame f(small_disc);
      f.param.quality_mode = quality, f.param.twinkle_switch = 1, f.param.bokeh_source_mode = 3;
      TestImage out(RectWidth(c.roi), RectHeight(c.roi), PIXEL_BGRA32, 5);
      EXPECT_EQ(rig->Process(&f.param, &f.shape, &photo.buf, &guide.buf, &out.buf, c.roi), S_OK)
          << c.w << "x" << c.h << " quality " << quality;
      EXPECT_TRUE(out.GuardsIntact() && photo.GuardsIntact());
    }
  }
}

// Found by fuzzing: a hue offset of -1.3e21 overflowed the conversion of the
// hue shift to an integer. Every float setting of the record, however far out
// of range, renders a frame (the sanitizer build checks each conversion).
TEST(BokehEffect, FloatSettingsFarOutOfRangeStillRender) {
  TestImage photo = Photo(), guide = Guide(), disc = Disc(41);
  EffectRig<BokehEffect> rig;
  ASSERT_EQ(rig->SetSource(&photo.buf), S_OK);
  const float wild[] = {-1.29711e21f, 3e38f, -3e38f, INFINITY, -INFINITY, NAN};
  const std::function<void(Frame&, float)> fields[] = {
      [](Frame& f, float v) { f.shape.hue_offset = v; },    [](Frame& f, float v) { f.shape.saturation = v; },
      [](Frame& f, float v) { f.shape.size_blend = v; },    [](Frame& f, float v) { f.shape.rotation = v; },
      [](Frame& f, float v) { f.param.focus_value = v; },   [](Frame& f, float v) { f.param.focus_range = v; },
      [](Frame& f, float v) { f.param.blur_strength = v; }, [](Frame& f, float v) { f.param.blur_buff_ratio = v; },
  };
  for (size_t field = 0; field < std::size(fields); ++field)
    for (float v : wild)
      for (int32_t colour : {0, 1, 2}) {
        Frame f(disc);
        f.shape.color_mode = colour, f.param.hue_shift_switch = 1, f.param.bokeh_source_mode = 3;
        fields[field](f, v);
        TestImage out(kW, kH, PIXEL_BGRA32, 4);
        ASSERT_EQ(rig->Process(&f.param, &f.shape, &photo.buf, &guide.buf, &out.buf, Rect{0, 0, kW, kH}), S_OK)
            << "field " << field << " value " << v << " colour mode " << colour;
        EXPECT_TRUE(out.GuardsIntact());
      }
}

// The same frame for any worker count and kernel form, and for a photo and
// a guide with padded rows (the reference's are packed).
TEST(BokehEffect, SameFrameForAnyWorkersKernelFormAndRowPadding) {
  TestImage photos[2] = {Photo(), Photo(12)}, guides[2] = {Guide(), Guide(4)}, disc = Disc(41);
  for (int32_t quality : {1, 2})
    LightTest::ExpectSameFrameForWorkersAndForms(
        kW - 18, "quality " + std::to_string(quality) + ", ", [&](int workers, const SystemInfo& info) {
          TestImage &photo = photos[workers > 1], &guide = guides[workers > 1];
          EffectRig<BokehEffect> rig(workers);
          rig->SetSystemInfo(info);
          EXPECT_EQ(rig->SetSource(&photo.buf), S_OK);
          Frame f(disc);
          f.param.twinkle_switch = 1, f.param.anime_frame_index = 3, f.param.quality_mode = quality;
          f.shape.rotation = 30.0f, f.shape.size_blend = 0.5f;
          const Bytes out = Render(rig, f, photo, &guide, Rect{13, 7, kW - 5, kH - 20});
          EXPECT_TRUE(photo.GuardsIntact() && guide.GuardsIntact());
          return out;
        });
}

// Nothing animates without twinkle or hue shift and a kept background is
// reused; twinkling points change over the loop; the hue offset turns once
// per loop within (-1, 1] (0.9 at frame 1 of 4 becomes -0.6); frames past
// the loop are the frames in it, byte for byte.
TEST(BokehEffect, AnimationLoopsAndKeptBackground) {
  EffectRig<BokehEffect> rig;
  TestImage photo = Photo(), guide = Guide(), disc = Disc(), big(kW, kH, PIXEL_GRAY8);
  ASSERT_EQ(rig->SetSource(&photo.buf), S_OK);
  Frame f(disc);
  f.param.keep_background = 0;
  const Bytes a = Render(rig, f, photo, &guide);
  f.param.anime_frame_index = 5;
  EXPECT_EQ(Render(rig, f, photo, &guide), a);
  f.param.keep_background = 1;
  EXPECT_EQ(Render(rig, f, photo, &guide), a);
  EXPECT_EQ(Render(rig, f, photo, &guide), a);  // the second call reuses the blur
  f.param.twinkle_switch = 1;
  f.param.anime_frame_index = 0;
  const Bytes first = Render(rig, f, photo, &guide);
  bool changes = false;
  for (int32_t i = 2; i < 8; i += 2) {
    f.param.anime_frame_index = i;
    changes |= Render(rig, f, photo, &guide) != first;
  }
  EXPECT_TRUE(changes);
  f = Frame(disc);
  f.param.hue_shift_switch = 1, f.param.anime_frame_count = 4, f.param.anime_frame_index = 1, f.shape.hue_offset = 0.9f;
  Render(rig, f, photo, &guide);
  EXPECT_NEAR(rig->GetHueOffset(), -0.6f, 1e-6f);

  big.FillConstant(255);  // every light point gets the largest disc
  for (int32_t count : {7, 24})
    for (int32_t setting : {0, 1}) {
      Frame g(disc);
      g.param.anime_frame_count = count, g.param.hue_shift_switch = setting == 0, g.param.twinkle_switch = setting == 1;
      g.shape.color_mode = 2;
      for (int32_t k = 0; k < count; ++k) {
        g.param.anime_frame_index = k;
        const Bytes in_loop = Render(rig, g, photo, &big);
        g.param.anime_frame_index = k + count * (k + 1);
        EXPECT_EQ(Render(rig, g, photo, &big), in_loop) << "setting " << setting << " frame " << k << " of " << count;
      }
    }
}

// The light points in scan order of the detection copy, with the twinkle
// curve's length; the first `capacity` of them copied out.
TEST(BokehEffect, LightPointsCanBeReadBack) {
  EffectRig<BokehEffect> rig;
  LightPointSummary sum;
  EXPECT_EQ(rig->GetLightPoints(&sum, nullptr, 0), E_FAIL);
  TestImage photo = Photo();
  ASSERT_EQ(rig->SetSource(&photo.buf), S_OK);
  EXPECT_EQ(rig->GetLightPoints(nullptr, nullptr, 0), E_POINTER);
  EXPECT_EQ(rig->GetLightPoints(&sum, nullptr, -1), E_INVALIDARG);
  EXPECT_EQ(rig->GetLightPoints(&sum, nullptr, 2), E_INVALIDARG);
  ASSERT_EQ(rig->GetLightPoints(&sum, nullptr, 0), S_OK);
  EXPECT_EQ(sum.norm_width, 640);
  EXPECT_EQ(sum.norm_height, 400);
  EXPECT_EQ(sum.curve_samples, 132);
  ASSERT_EQ(sum.count, static_cast<int32_t>(rig->GetBokehList().size()));
  std::vector<LightPointInfo> points(static_cast<size_t>(sum.count) + 1);
  ASSERT_EQ(rig->GetLightPoints(&sum, points.data(), sum.count - 1), S_OK);
  auto it = rig->GetBokehList().begin();
  for (int32_t i = 0; i < sum.count - 1; ++i, ++it)
    EXPECT_TRUE(points[i].x == it->second.x && points[i].y == it->second.y && points[i].phase == it->second.phase &&
                points[i].random == it->second.random)
        << i;
  EXPECT_EQ(points[sum.count - 1].x, 0);  // beyond the capacity: untouched
}

// A render of a region with REGION_SHAPES_REACHING is the crop of the render
// of the whole photo, at the photo's size and on a reduced light map,
// sub-pixel and whole-pixel: every disc reaching into the region is drawn,
// and the enlargement reads the same light map pixels.
TEST(BokehEffect, RegionRendersAreCropsOfTheWholeRender) {
  for (auto [w, h] : {std::pair<int32_t, int32_t>{1500, 260}, {5200, 64}}) {  // map ratios 0.86 and 0.25
    TestImage photo(w, h), guide(w, h, PIXEL_GRAY8), disc = Disc(41);
    std::mt19937 rng(3);
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        uint8_t* p = photo.Row(y) + 4 * x;
        for (int k = 0; k < 3; ++k) p[k] = static_cast<uint8_t>(30 + rng() % 20);
        p[3] = 255;
        guide.Row(y)[x] = static_cast<uint8_t>(200 + (x + y) % 56);  // background: large discs
      }
    for (int32_t i = 0; i < 400; ++i) {  // small lights all over, many near the regions' edges
      const int32_t cx = 1 + static_cast<int32_t>(rng() % (w - 2)), cy = 1 + static_cast<int32_t>(rng() % (h - 2));
      for (int32_t y = cy - 1; y <= cy + 1; ++y)
        for (int32_t x = cx - 1; x <= cx + 1; ++x) std::memset(photo.Row(y) + 4 * x, 250, 3);
    }
    for (int32_t quality : {0, 1, 2}) {
      EffectRig<BokehEffect> rig;
      ASSERT_EQ(rig->SetSource(&photo.buf), S_OK);
      Frame f(disc);
      f.param.quality_mode = quality, f.shape.rotation = 20.0f;
      const Bytes whole = Render(rig, f, photo, &guide, Rect{0, 0, w, h});
      ASSERT_EQ(rig->SetRegionMode(REGION_SHAPES_REACHING), S_OK);
      LightTest::ExpectRegionsAreCrops(whole, w, LightTest::TileRegions(w, h),
                                       std::to_string(w) + " quality " + std::to_string(quality),
                                       [&](const Rect& r) { return Render(rig, f, photo, &guide, r); });
    }
  }
  EffectRig<BokehEffect> rig;
  EXPECT_EQ(rig->SetRegionMode(2), E_INVALIDARG);
}

// A photo one pixel across and as long as a photo may be renders in every
// quality mode within a small multiple of its own size, and a loop of
// INT_MAX frames costs nothing more; longer sides and shapes are refused.
TEST(BokehEffectDeathTest, ThinPhotosAndLongLoopsStaySmall) {
  const auto run = [] {
    TestImage disc = Disc(64);
    std::vector<std::pair<TestImage, TestImage>> photos;
    for (auto [w, h] : {std::pair<int32_t, int32_t>{1, kMaxImageSide}, {kMaxImageSide, 1}}) {
      photos.emplace_back(TestImage(w, h), TestImage(w, h));
      photos.back().first.FillNoise(7);
    }
    EffectRig<BokehEffect> rig(1);
    LightTest::ExitWithAddressRoom(150u << 20, [&] {
      for (auto& [photo, out] : photos) {
        if (rig->SetSource(&photo.buf) != S_OK) return false;
        for (int32_t quality : {0, 1, 2, 3}) {
          Frame f(disc);
          f.param.quality_mode = quality, f.param.twinkle_switch = 1, f.shape.size_blend = 1.0f;
          f.param.anime_frame_count = INT32_MAX, f.param.anime_frame_index = INT32_MAX - 1;
          if (rig->Process(&f.param, &f.shape, &photo.buf, nullptr, &out.buf, FullRect(photo.buf)) != S_OK)
            return false;
        }
      }
      return true;
    });
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(BokehEffect, BackgroundLooksLikeTheFocusBlur) {
  // A textured photo, all background: the reduced blur must stay close to
  // the full focus blur at the same level.
  TestImage photo(kW, kH);
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x) {
      uint8_t* p = photo.Row(y) + 4 * x;
      p[0] = static_cast<uint8_t>(128 + 100 * std::sin(x * 0.11f) * std::cos(y * 0.07f));
      p[1] = static_cast<uint8_t>(((x / 16 + y / 16) % 2) * 200 + 20);
      p[2] = static_cast<uint8_t>(x * 255 / kW);
      p[3] = 255;
    }
  TestImage guide(kW, kH, PIXEL_GRAY8);
  guide.FillConstant(0);
  TestImage ref(kW, kH);
  KorvaneTest::EffectRig<FocusBlurEffect> focus;
  FocusBlurParam fp;
  fp.input = photo.buf, fp.mask = guide.buf, fp.output = ref.buf;
  fp.blur_level = 60, fp.focus_value = 230, fp.focus_range = 51;
  ASSERT_EQ(focus->Process(&fp), S_OK);

  KorvaneTest::Runner run;
  BokehFocus bf;
  BokehFocusParam p;
  p.src = SmartBufferView(photo.buf), p.guide = SmartBufferView(guide.buf), p.roi = Rect{0, 0, kW, kH};
  p.blur_strength = 0.6f, p.focus_value = 230 / 255.0f, p.focus_range = 51 / 255.0f;
  SmartBuffer out, weight;
  CreateSmartBufferData(out, kW, kH, PIXEL_BGRA32);
  ASSERT_EQ(bf.Process(run.adapter, KorvaneTest::Level(SIMD_SSE41), p, false, out, weight), S_OK);
  double diff = 0;
  const std::vector<uint8_t> want = ref.Packed();
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x)
      for (int k = 0; k < 3; ++k) diff += std::abs(RowPtr(out, y)[4 * x + k] - want[(y * kW + x) * 4 + k]);
  EXPECT_LT(diff / (kW * kH * 3), 2.5);

  // Found by fuzzing: focus settings far outside 0..1 were converted to int
  // before being clamped. They clamp to the ends of the range.
  BokehFocusParam extreme = p;
  extreme.focus_value = 7.3e19f, extreme.focus_range = -1e30f;
  SmartBuffer out2, weight2;
  CreateSmartBufferData(out2, kW, kH, PIXEL_BGRA32);
  EXPECT_EQ(bf.Process(run.adapter, KorvaneTest::Level(SIMD_SSE41), extreme, false, out2, weight2), S_OK);
  // The blend weight is 255 (fully blurred) everywhere the guide is far from focus.
  EXPECT_EQ(weight.width, kW / 2);
  EXPECT_EQ(RowPtr(weight, 3)[5], 255);

  // The reduced kernel spans the same reach in full-size pixels and sums to 1.
  float w[kGaussianHalfTaps], full[kGaussianHalfTaps];
  const int32_t n = MakeReducedGaussianWeights(60, 4000, 3000, 0.5f, w), nf = MakeGaussianWeights(60, 4000, 3000, full);
  EXPECT_EQ(n, (nf - 1) / 2 + 1);
  float sum = w[0];
  for (int i = 1; i < n; ++i) sum += 2 * w[i];
  EXPECT_NEAR(sum, 1.0f, 1e-6f);
}

// With true_scale the background (all of it without a guide) spreads an
// edge by the share of the shorter side that blur_strength asks for at any
// size; the reduced copy's ratio only decides how small the blur may work.
TEST(BokehEffect, TrueScaleBackgroundIsTheSameShareOfAnySize) {
  for (const int32_t side : {400, 2000}) {
    SCOPED_TRACE(side);
    TestImage photo = KorvaneTest::StepEdge(side), out(side, side);
    EffectRig<BokehEffect> rig;
    ASSERT_EQ(rig->SetSource(&photo.buf), S_OK);
    BokehParam param;
    param.paste_switch = 0, param.anime_frame_count = 1, param.anime_frame_index = 0, param.true_scale = 1;
    const BokehShapeParam shape;
    ASSERT_EQ(rig->Process(&param, &shape, &photo.buf, nullptr, &out.buf, Rect{0, 0, side, side}), S_OK);
    const KorvaneTest::EdgeSpread edge(out.Row(side / 2), side / 2 - side / 10, side / 2 + side / 10);
    EXPECT_NEAR(edge.spread / side, 0.02, 0.002);
    EXPECT_NEAR(edge.centre, side / 2.0, 1.0);
  }
}

}  // namespace
}  // namespace Korvane
