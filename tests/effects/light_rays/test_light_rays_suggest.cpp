// Light rays that suit a photo: rays that fade to nothing without steps,
// the automatic centre on the brightest compact highlight, and suggested
// settings that do not wash the picture out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "TestSupport.h"
#include "core/PhotoMeasures.h"
#include "core/SmartBuffer.h"
#include "effects/light_rays/LightRaysEffect.h"

using namespace Korvane;
using KorvaneTest::EffectRig;

namespace {

using Bytes = std::vector<uint8_t>;

struct Photo {
  int w, h;
  Bytes px;
  Photo(int width, int height, uint8_t level) : w(width), h(height), px(static_cast<size_t>(width) * height * 4) {
    for (size_t i = 0; i < px.size(); ++i) px[i] = i % 4 == 3 ? 255 : level;
  }
  void Fill(int x0, int y0, int x1, int y1, uint8_t v) {
    for (int y = std::max(0, y0); y < std::min(h, y1); ++y)
      for (int x = std::max(0, x0); x < std::min(w, x1); ++x) std::fill_n(&px[(static_cast<size_t>(y) * w + x) * 4], 3, v);
  }
  void Lamp(int cx, int cy, int r) {
    for (int y = cy - r; y <= cy + r; ++y)
      for (int x = cx - r; x <= cx + r; ++x)
        if (std::hypot(x - cx, y - cy) <= r) Fill(x, y, x + 1, y + 1, 255);
  }
  ImageBuffer Buffer() { return MakeImageBuffer(px.data(), w, h); }
  const uint8_t* At(int x, int y) const { return &px[(static_cast<size_t>(y) * w + x) * 4]; }
};

Bytes Render(Photo& photo, LightRaysParam p) {
  EffectRig<LightRaysEffect> rig;
  EXPECT_EQ(rig->Initialize(photo.w, photo.h), S_OK);
  Bytes out(photo.px.size());
  p.src = MakeSmartBufferView(photo.px.data(), photo.w, photo.h);
  p.dst = MakeSmartBufferView(out.data(), photo.w, photo.h), p.roi = Rect{0, 0, photo.w, photo.h};
  EXPECT_EQ(rig->Process(p), S_OK);
  return out;
}

// A white bar whose light runs right: along each row the added light falls
// to nothing. The designed path falls in steps that the ray level's lift
// magnifies (about 7 levels at a time); with smooth_fade it falls evenly,
// as bright overall. A step shows as light off the straight line between
// the points four pixels before and after.
TEST(LightRaysFade, RaysFadeToNothingWithoutSteps) {
  Photo bar(600, 200, 20);
  bar.Fill(40, 20, 60, 180, 255);
  LightRaysParam p;
  p.ray_mode = LIGHT_RAYS_DIRECTIONAL, p.ray_angle = 0, p.ray_length = 400, p.center_x = 300, p.center_y = 100;
  double total[2] = {0, 0}, step[2] = {0, 0};
  for (int smooth : {0, 1}) {
    p.smooth_fade = static_cast<uint8_t>(smooth);
    const Bytes out = Render(bar, p);
    for (int y = 30; y < 170; ++y) {
      const auto added = [&](int x) { return out[(static_cast<size_t>(y) * bar.w + x) * 4 + 1] - bar.At(x, y)[1]; };
      for (int x = 65; x + 4 < bar.w; ++x) {
        total[smooth] += added(x);
        if (added(x) < 80) step[smooth] = std::max(step[smooth], std::fabs(added(x) - 0.5 * (added(x - 4) + added(x + 4))));
      }
    }
  }
  EXPECT_GE(step[0], 3.5);
  EXPECT_LE(step[1], 2.5);
  EXPECT_NEAR(total[1] / total[0], 1.0, 0.1);
}

// The automatic centre lands on a lamp, not on a larger pale wall or in a
// corner; on a lamp at the frame's edge when that is the light; in the
// middle of a picture without highlights. Process uses it for the default
// centre.
TEST(LightRaysCentre, OnTheBrightestCompactHighlight) {
  EffectRig<LightRaysEffect> rig;
  int32_t x = -1, y = -1;
  Photo room(480, 320, 70), edge(480, 320, 60), flat(300, 200, 128);
  room.Fill(0, 0, 200, 120, 225);  // a pale wall in the corner
  room.Lamp(330, 210, 6);
  edge.Lamp(479, 100, 8);
  struct Case { Photo* photo; int x, y, slack; };  // the edge lamp's centre: x 470 .. 479
  for (const Case& c : {Case{&room, 330, 210, 3}, Case{&edge, 475, 100, 5}, Case{&flat, 150, 100, 2}}) {
    ImageBuffer b = c.photo->Buffer();
    ASSERT_EQ(rig->FindCenter(&b, &x, &y), S_OK);
    EXPECT_NEAR(x, c.x, c.slack) << c.photo->w;
    EXPECT_NEAR(y, c.y, std::min(c.slack, 3)) << c.photo->w;
  }
  ImageBuffer b = flat.Buffer();

  EXPECT_EQ(rig->FindCenter(nullptr, &x, &y), E_POINTER);
  EXPECT_EQ(rig->FindCenter(&b, nullptr, &y), E_POINTER);

  // The default record takes the automatic centre: the same picture as
  // that centre given.
  LightRaysParam automatic, given;
  b = room.Buffer();
  ASSERT_EQ(rig->FindCenter(&b, &given.center_x, &given.center_y), S_OK);
  EXPECT_EQ(Render(room, automatic), Render(room, given));
}

// Suggested settings on a photo with a wide bright background and a lamp:
// the full-size render washes out at most a few points more of the picture
// (the designed defaults wash out far more), the threshold lets about the
// brightest 2 % shine, and only the fields asked for change.
TEST(LightRaysSuggest, SettingsThatDoNotWashThePhotoOut) {
  Photo studio(640, 480, 60);
  for (int y = 0; y < 480; ++y) studio.Fill(0, y, 640, y + 1, static_cast<uint8_t>(150 + y / 8));  // bright backdrop
  studio.Fill(200, 150, 440, 480, 90);                                                              // a dark figure
  studio.Lamp(320, 300, 10);
  ImageBuffer b = studio.Buffer();
  const double before = NearWhiteShare(b, 245);

  EffectRig<LightRaysEffect> rig;
  LightRaysParam designed;
  designed.center_x = 320, designed.center_y = 300;
  LightRaysParam p = designed;
  p.ray_angle = 33;
  ASSERT_EQ(rig->SuggestSettings(&b, SUGGEST_ALL & ~SUGGEST_CENTER, &p), S_OK);
  EXPECT_EQ(p.center_x, 320);
  EXPECT_EQ(p.ray_angle, 33);
  EXPECT_GE(p.hlr_threshold, 160);
  EXPECT_LE(p.hlr_threshold, 250);
  EXPECT_FLOAT_EQ(p.ray_length, 160);

  const auto washed = [&](const LightRaysParam& q) {
    Bytes out = Render(studio, q);
    return NearWhiteShare(MakeImageBuffer(out.data(), studio.w, studio.h), 245) - before;
  };
  EXPECT_GT(washed(designed), 0.10);
  EXPECT_LE(washed(p), 0.045);
  EXPECT_GT(washed(p), 0.0);  // still rays

  // Only the strength asked for: the record's other settings are kept.
  LightRaysParam only = designed;
  ASSERT_EQ(rig->SuggestSettings(&b, SUGGEST_STRENGTH, &only), S_OK);
  EXPECT_EQ(only.hlr_threshold, designed.hlr_threshold);
  EXPECT_EQ(only.ray_length, designed.ray_length);
  EXPECT_EQ(rig->SuggestSettings(&b, SUGGEST_ALL, nullptr), E_POINTER);
}

}  // namespace
