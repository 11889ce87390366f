// The shared record checks: their order of codes, the 64-bit row test, the
// frame-image check every effect shares, overlapping pixels, and the
// task-side check that allows empty images.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "core/ImageChecks.h"

using namespace Korvane;

TEST(ImageChecks, CheckImageAnswersPointerThenFormatThenSize) {
  std::vector<uint8_t> px(64);
  ImageBuffer ok = MakeImageBuffer(px.data(), 4, 4);
  EXPECT_EQ(CheckImage(ok, PIXEL_BGRA32), S_OK);
  EXPECT_EQ(CheckImage(static_cast<const ImageBuffer*>(nullptr), PIXEL_BGRA32), E_POINTER);
  ImageBuffer b = ok;
  b.data = nullptr;
  b.pix_fmt = PIXEL_GRAY8;  // a missing pointer wins over a wrong format
  EXPECT_EQ(CheckImage(b, PIXEL_BGRA32), E_POINTER);
  b = ok;
  b.channel = 3;  // the format's channel count is part of the format
  b.width = 0;    // a wrong format wins over a bad size
  EXPECT_EQ(CheckImage(b, PIXEL_BGRA32), E_NOTIMPL);
  b = ok;
  b.stride = 15;
  EXPECT_EQ(CheckImage(b, PIXEL_BGRA32), E_INVALIDARG);
  // width x 4 overflows 32 bits: the test is made in 64.
  b = ok;
  b.width = 0x40000001;
  b.stride = 4;
  EXPECT_FALSE(RowsFit(b, 4));
  EXPECT_EQ(CheckImage(b, PIXEL_BGRA32), E_INVALIDARG);
}

// Each case carries a second fault that a later step of the order would
// report; the first one's code must win.
TEST(ImageChecks, FrameImagesAreCheckedPointersThenFormatsThenSizes) {
  std::vector<uint8_t> px(8 * 6 * 4), gpx(8 * 6);
  const ImageBuffer src = MakeImageBuffer(px.data(), 8, 6), dst = MakeImageBuffer(px.data(), 3, 2);
  const ImageBuffer guide = MakeImageBuffer(gpx.data(), 8, 6, PIXEL_GRAY8);
  const Rect roi{5, 4, 8, 6};
  struct Case {
    int32_t code;
    void (*edit)(ImageBuffer& s, ImageBuffer& d, ImageBuffer& g, Rect& r);
  };
  const Case cases[] = {
      {S_OK, [](ImageBuffer&, ImageBuffer&, ImageBuffer&, Rect&) {}},
      {S_OK, [](ImageBuffer&, ImageBuffer&, ImageBuffer& g, Rect&) { g.data = nullptr, g.pix_fmt = 9; }},  // none
      {E_POINTER, [](ImageBuffer& s, ImageBuffer&, ImageBuffer& g, Rect&) { s.data = nullptr, g.pix_fmt = 9; }},
      {E_POINTER, [](ImageBuffer&, ImageBuffer& d, ImageBuffer&, Rect& r) { d.data = nullptr, r.right = 99; }},
      {E_NOTIMPL, [](ImageBuffer& s, ImageBuffer&, ImageBuffer&, Rect& r) { s.pix_fmt = PIXEL_GRAY8, r.left = -1; }},
      {E_NOTIMPL, [](ImageBuffer&, ImageBuffer& d, ImageBuffer&, Rect&) { d.channel = 3; }},
      {E_NOTIMPL, [](ImageBuffer&, ImageBuffer&, ImageBuffer& g, Rect&) { g.pix_fmt = PIXEL_BGRA32, g.width = 2; }},
      {E_INVALIDARG, [](ImageBuffer& s, ImageBuffer&, ImageBuffer&, Rect&) { s.stride = 31; }},
      {E_INVALIDARG, [](ImageBuffer& s, ImageBuffer&, ImageBuffer&, Rect&) { s.width = kMaxImageSide + 1; }},
      {E_INVALIDARG, [](ImageBuffer&, ImageBuffer&, ImageBuffer&, Rect& r) { r = Rect{6, 4, 9, 6}; }},
      {E_INVALIDARG, [](ImageBuffer&, ImageBuffer&, ImageBuffer&, Rect& r) { r = Rect{5, 4, 5, 4}; }},
      {E_INVALIDARG, [](ImageBuffer&, ImageBuffer& d, ImageBuffer&, Rect&) { d.height = 1; }},
      {E_INVALIDARG, [](ImageBuffer&, ImageBuffer&, ImageBuffer& g, Rect&) { g.height = 5; }},
      {E_INVALIDARG, [](ImageBuffer&, ImageBuffer&, ImageBuffer& g, Rect&) { g.stride = 7; }},
  };
  for (const Case& c : cases) {
    ImageBuffer s = src, d = dst, g = guide;
    Rect r = roi;
    c.edit(s, d, g, r);
    if (s.width > kMaxImageSide) s.stride = s.width * 4;
    EXPECT_EQ(CheckFrameImages(&s, &d, r, &g), c.code) << &c - cases;
  }
  EXPECT_EQ(CheckFrameImages(&src, static_cast<const ImageBuffer*>(nullptr), roi), E_POINTER);
}

// Two images share memory when their rows' bytes meet anywhere; a guide read
// by its first byte spans its channel count however its format is labelled.
TEST(ImageChecks, OverlapsLooksAtTheBytesOfEveryRow) {
  std::vector<uint8_t> px(1000);
  const ImageBuffer a = MakeImageBuffer(px.data(), 10, 5);  // bytes 0 .. 199
  ImageBuffer b = MakeImageBuffer(px.data() + 200, 10, 5), c = b;
  EXPECT_FALSE(Overlaps(a, b));
  c.data = px.data() + 199;
  EXPECT_TRUE(Overlaps(a, c) && Overlaps(c, a));
  ImageBuffer strided = MakeImageBuffer(px.data() + 300, 2, 3);
  strided.stride = 200;  // rows at 300, 500, 700
  c = MakeImageBuffer(px.data() + 704, 1, 1);
  EXPECT_TRUE(Overlaps(strided, c));
  c.data = px.data() + 708;
  EXPECT_FALSE(Overlaps(strided, c));
  ImageBuffer guide = MakeImageBuffer(px.data() + 900, 10, 1, PIXEL_GRAY8);
  guide.channel = 4;  // 40 bytes
  c.data = px.data() + 930;
  EXPECT_TRUE(Overlaps(guide, c));
}

TEST(ImageChecks, CheckHoldsAllowsEmptyImagesButNotRectanglesOutside) {
  std::vector<uint8_t> px(64);
  SmartBuffer img = MakeSmartBufferView(px.data(), 4, 4);
  EXPECT_EQ(CheckHolds(&img, PIXEL_BGRA32, Rect{0, 0, 4, 4}), S_OK);
  EXPECT_EQ(CheckHolds(&img, PIXEL_BGRA32, Rect{2, 2, 2, 2}), S_OK);  // empty, inside
  EXPECT_EQ(CheckHolds(&img, PIXEL_BGRA32, Rect{0, 0, 5, 4}), E_INVALIDARG);
  EXPECT_EQ(CheckHolds(&img, PIXEL_BGRA32, Rect{-1, 0, 2, 2}), E_INVALIDARG);
  EXPECT_EQ(CheckHolds(&img, PIXEL_FLOAT96, Rect{}), E_NOTIMPL);
  EXPECT_EQ(CheckHolds(static_cast<const SmartBuffer*>(nullptr), PIXEL_BGRA32, Rect{}), E_POINTER);
  SmartBuffer empty = MakeSmartBufferView(px.data(), 0, 0);
  EXPECT_EQ(CheckHolds(&empty, PIXEL_BGRA32, Rect{}), S_OK);
  empty.width = -1;
  EXPECT_EQ(CheckHolds(&empty, PIXEL_BGRA32, Rect{}), E_INVALIDARG);
  // Clipping to an image, and an empty rectangle is never inside one.
  const Rect c = Clip(Rect{-3, 2, 9, 20}, 5, 10);
  EXPECT_TRUE(c.left == 0 && c.top == 2 && c.right == 5 && c.bottom == 10);
  EXPECT_TRUE(IsEmpty(Clip(Rect{6, 0, 9, 3}, 5, 10)));
  EXPECT_FALSE(RectInside(Rect{1, 1, 1, 3}, 5, 10));
}
