// The shared record checks: their order of codes, the 64-bit row test, the
// task-side check that allows empty images, clipping and the result slot.
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
}

TEST(ImageChecks, ClipAndTheResultSlot) {
  const Rect c = Clip(Rect{-3, 2, 9, 20}, 5, 10);
  EXPECT_EQ(c.left, 0);
  EXPECT_EQ(c.top, 2);
  EXPECT_EQ(c.right, 5);
  EXPECT_EQ(c.bottom, 10);
  EXPECT_TRUE(IsEmpty(Clip(Rect{6, 0, 9, 3}, 5, 10)));
  EXPECT_FALSE(RectInside(Rect{1, 1, 1, 3}, 5, 10));  // empty is not inside
  int32_t slot = 1;
  EXPECT_EQ(Done(&slot, E_POINTER), E_POINTER);
  EXPECT_EQ(slot, E_POINTER);
  EXPECT_EQ(Done(nullptr, S_OK), S_OK);  // a task run without a slot
}
