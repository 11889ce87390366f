#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "core/SmartBuffer.h"

using namespace Korvane;

TEST(SmartBufferCreate, UnknownFormatKeepsPixelsButTakesTheNewFields) {
  SmartBuffer b;
  ASSERT_EQ(CreateSmartBufferData(b, 4, 4, PIXEL_GRAY8), S_OK);
  unsigned char* old = b.data.get();
  EXPECT_EQ(CreateSmartBufferData(b, 9, 7, 7), E_NOTIMPL);
  EXPECT_EQ(b.width, 9);
  EXPECT_EQ(b.height, 7);
  EXPECT_EQ(b.pix_fmt, 7);
  EXPECT_EQ(b.data.get(), old);
}

TEST(SmartBufferCreate, ExternalMemoryIsSharedNeverFreedAndFloat96Refused) {
  std::vector<unsigned char> mem(40);
  {
    SmartBuffer b;
    ASSERT_EQ(CreateSmartBufferData(b, 10, 1, PIXEL_BGRA32, mem.data()), S_OK);
    EXPECT_EQ(b.data.get(), mem.data());
    SmartBuffer copy = b;  // shares, and the last holder must not free
    EXPECT_EQ(b.data.use_count(), 2);
  }
  SmartBuffer f;
  EXPECT_EQ(CreateSmartBufferData(f, 2, 1, PIXEL_FLOAT96, mem.data()), E_NOTIMPL);
}

TEST(SmartBufferCopy, ComparesOnlyRowBytesAndRowCount) {
  SmartBuffer gray10, bgra10, gray40;
  CreateSmartBufferData(gray10, 10, 10, PIXEL_GRAY8);
  CreateSmartBufferData(bgra10, 10, 10, PIXEL_BGRA32);
  CreateSmartBufferData(gray40, 40, 10, PIXEL_GRAY8);
  std::iota(gray40.data.get(), gray40.data.get() + 400, 0);
  EXPECT_EQ(CopySmartBufferData(gray10, bgra10), E_INVALIDARG);
  EXPECT_EQ(CopySmartBufferData(gray40, bgra10), S_OK);
  EXPECT_EQ(bgra10.data[399], static_cast<unsigned char>(399));
}

namespace {
SmartBuffer Ramp(int w, int h) {
  SmartBuffer b;
  CreateSmartBufferData(b, w, h, PIXEL_BGRA32);
  for (int i = 0; i < w * h * 4; ++i) b.data[i] = static_cast<unsigned char>(i * 7 + 1);
  return b;
}
}  // namespace

TEST(RectCopy, RectanglesMustLieInsideAndFitTheDestination) {
  SmartBuffer src = Ramp(6, 5), dst, empty, gray;
  CreateSmartBufferData(dst, 2, 3, PIXEL_BGRA32);
  EXPECT_EQ(CopySmartBufferDataWithROI(src, dst, Rect{4, 2, 6, 5}), S_OK);  // right and bottom edges reached
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 8; ++x) EXPECT_EQ(dst.data[y * 8 + x], src.data[(y + 2) * 24 + 16 + x]);
  for (Rect r : {Rect{5, 2, 7, 5}, Rect{4, 3, 6, 6}, Rect{-1, 2, 1, 5}, Rect{3, 2, 6, 5}})
    EXPECT_EQ(CopySmartBufferDataWithROI(src, dst, r), E_INVALIDARG) << r.left << "," << r.top;
  CreateSmartBufferData(empty, 3, 0, PIXEL_BGRA32);
  EXPECT_EQ(CopySmartBufferDataWithROI(src, empty, Rect{1, 2, 4, 2}), S_OK);  // nothing to copy
  // Formats whose rows differ would overrun a row.
  CreateSmartBufferData(gray, 6, 5, PIXEL_GRAY8);
  EXPECT_EQ(CopySmartBufferDataWithROI(gray, dst, Rect{0, 0, 2, 3}), E_INVALIDARG);
}

TEST(RectCopy, CallerImagesAndPasteRoundTrip) {
  SmartBuffer src = Ramp(7, 6), part, back;
  CreateSmartBufferData(part, 3, 2, PIXEL_BGRA32);
  ImageBuffer in{src.data.get(), 7, 6, 28, 4, PIXEL_BGRA32};
  ImageBuffer out{part.data.get(), 3, 2, 12, 4, PIXEL_BGRA32};
  ASSERT_EQ(CopyBufferDataWithROI(in, out, Rect{2, 3, 5, 5}), S_OK);
  CreateSmartBufferData(back, 7, 6, PIXEL_BGRA32);
  std::fill(back.data.get(), back.data.get() + 7 * 6 * 4, 0);
  ASSERT_EQ(PasteSmartBufferDataWithROI(part, back, Rect{2, 3, 5, 5}), S_OK);
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 28; ++x) {
      const bool inside = y >= 3 && y < 5 && x >= 8 && x < 20;
      EXPECT_EQ(back.data[y * 28 + x], inside ? src.data[y * 28 + x] : 0) << x << "," << y;
    }
  EXPECT_EQ(PasteSmartBufferDataWithROI(part, back, Rect{5, 3, 8, 5}), E_INVALIDARG);
}

TEST(SmartBufferCreate, PixelsAreAlignedForVectorLoadsAndLargeBlocksForHugePages) {
  SmartBuffer small, large;
  CreateSmartBufferData(small, 3, 3, PIXEL_BGR24);
  CreateSmartBufferData(large, 1024, 1024, PIXEL_BGRA32);  // 4 MB
  EXPECT_EQ(reinterpret_cast<uintptr_t>(small.data.get()) % 64, 0u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(large.data.get()) % (2u << 20), 0u);
  large.data[4 * 1024 * 1024 - 1] = 7;  // the whole block is usable
}
