#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "TestSupport.h"
#include "core/InpaintMask.h"
#include "core/SmartBuffer.h"

using namespace Korvane;

namespace {

struct Photo {
  int w, h;
  std::vector<uint8_t> bgra, mask;
  Photo(int w_, int h_) : w(w_), h(h_), bgra(static_cast<size_t>(w_) * h_ * 4), mask(static_cast<size_t>(w_) * h_, 0) {}
  uint8_t* px(int x, int y) { return &bgra[(static_cast<size_t>(y) * w + x) * 4]; }
  ImageBuffer In() { return MakeImageBuffer(bgra.data(), w, h, PIXEL_BGRA32); }
  ImageBuffer Mask() { return MakeImageBuffer(mask.data(), w, h, PIXEL_GRAY8); }
};

Photo RandomPhoto(int w, int h, uint32_t seed) {
  Photo p(w, h);
  p.bgra = KorvaneTest::RandomBytes(p.bgra.size(), seed);
  return p;
}

SmartBuffer Fill(Photo& p) {
  SmartBuffer bg;
  CreateSmartBufferData(bg, p.w, p.h, PIXEL_BGRA32);
  std::fill(bg.data.get(), bg.data.get() + bg.stride * bg.height, 0xAB);
  EXPECT_EQ(InpaintMaskByDistTransform(p.In(), p.Mask(), bg), S_OK);
  return bg;
}

const uint8_t* At(const SmartBuffer& b, int x, int y) { return b.data.get() + y * b.stride + x * 4; }

}  // namespace

TEST(DistanceMetric, FixedPointWeightsOfTheFillAndRefusals) {
  float m[3];
  ASSERT_EQ(GetDistanceTransformMetric(32, m), S_OK);
  EXPECT_EQ(static_cast<uint32_t>(static_cast<double>(m[0]) * 65536.0 + 0.5), 62587u);
  EXPECT_EQ(static_cast<uint32_t>(static_cast<double>(m[1]) * 65536.0 + 0.5), 89738u);
  EXPECT_EQ(GetDistanceTransformMetric(33, m), E_INVALIDARG);
  EXPECT_EQ(GetDistanceTransformMetric(32, nullptr), E_POINTER);
}

TEST(Inpaint, EmptyMaskCopiesAndFullMaskKeepsEveryPixel) {
  for (int full = 0; full < 2; ++full) {
    Photo p = RandomPhoto(17, 9, 3);
    std::fill(p.mask.begin(), p.mask.end(), full ? 200 : 0);
    SmartBuffer bg = Fill(p);
    EXPECT_EQ(0, std::memcmp(bg.data.get(), p.bgra.data(), p.bgra.size())) << "full mask " << full;
  }
}

TEST(Inpaint, OnePixelHoleTakesTruncatedMeanOfUpperAndLeftNeighbours) {
  Photo p = RandomPhoto(5, 5, 7);
  p.mask[2 * 5 + 2] = 1;
  SmartBuffer bg = Fill(p);
  const uint8_t* n[4] = {p.px(1, 1), p.px(2, 1), p.px(3, 1), p.px(1, 2)};
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(At(bg, 2, 2)[c], (n[0][c] + n[1][c] + n[2][c] + n[3][c]) / 4) << "channel " << c;
  }
  EXPECT_EQ(At(bg, 2, 2)[3], 255);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 5; ++x) {
      if (x != 2 || y != 2) { EXPECT_EQ(0, std::memcmp(At(bg, x, y), p.px(x, y), 4)); }
    }
}

TEST(Inpaint, HolesTakeTheColourOfTheNearestSide) {
  // Left half red, right half blue, a wide still stripe across the middle:
  // its left part fills red, its right part blue, and every filled pixel is
  // red, blue or a mixture of the two (never the photo under the mask).
  Photo p(40, 12);
  for (int y = 0; y < 12; ++y)
    for (int x = 0; x < 40; ++x) {
      uint8_t* q = p.px(x, y);
      q[0] = x < 20 ? 0 : 250, q[1] = 77, q[2] = x < 20 ? 250 : 0, q[3] = 9;
      if (x >= 8 && x < 32 && y >= 2 && y < 10) p.mask[y * 40 + x] = 255, q[1] = 200;
    }
  SmartBuffer bg = Fill(p);
  for (int y = 2; y < 10; ++y) {
    EXPECT_EQ(At(bg, 8, y)[2], 250);
    EXPECT_GE(At(bg, 31, y)[0], 240);
    for (int x = 8; x < 32; ++x) {
      EXPECT_EQ(At(bg, x, y)[1], 77) << x << "," << y;
      const int sum = At(bg, x, y)[0] + At(bg, x, y)[2];
      EXPECT_TRUE(sum >= 245 && sum <= 250) << x << "," << y;
    }
  }
  // A large hole in a constant surrounding fills with exactly that colour.
  Photo c(30, 30);
  for (int i = 0; i < 900; ++i) {
    c.bgra[4 * i] = 10, c.bgra[4 * i + 1] = 20, c.bgra[4 * i + 2] = 30, c.bgra[4 * i + 3] = 255;
    if (i % 30 > 3 && i % 30 < 27 && i / 30 > 3 && i / 30 < 27) c.mask[i] = 1, c.bgra[4 * i] = 99;
  }
  SmartBuffer cb = Fill(c);
  for (int i = 0; i < 900; ++i) ASSERT_EQ(cb.data[4 * i], 10) << i;
}

TEST(Inpaint, PaddedRowsGiveTheSameFill) {
  Photo p = RandomPhoto(13, 11, 5);
  std::mt19937 rng(9);
  for (auto& m : p.mask) m = (rng() % 3 == 0) ? 255 : 0;
  SmartBuffer packed = Fill(p);
  KorvaneTest::TestImage in(13, 11, PIXEL_BGRA32, 12), mk(13, 11, PIXEL_GRAY8, 12);
  in.Fill(p.bgra);
  mk.Fill(p.mask);
  SmartBuffer bg;
  CreateSmartBufferData(bg, 13, 11, PIXEL_BGRA32);
  ASSERT_EQ(InpaintMaskByDistTransform(in.buf, mk.buf, bg), S_OK);
  EXPECT_EQ(0, std::memcmp(bg.data.get(), packed.data.get(), 13 * 11 * 4));
}

TEST(Inpaint, RefusesBadImages) {
  Photo p = RandomPhoto(6, 4, 1);
  SmartBuffer bg, wrong;
  CreateSmartBufferData(bg, 6, 4, PIXEL_BGRA32);
  CreateSmartBufferData(wrong, 6, 5, PIXEL_BGRA32);
  const ImageBuffer in = p.In(), mask = p.Mask();
  ImageBuffer short_rows = in, none = in;
  short_rows.stride = 6 * 4 - 1;
  none.data = nullptr;
  EXPECT_EQ(InpaintMaskByDistTransform(in, MakeImageBuffer(p.mask.data(), 5, 4, PIXEL_GRAY8), bg), E_INVALIDARG);
  EXPECT_EQ(InpaintMaskByDistTransform(MakeImageBuffer(p.bgra.data(), 6, 4, PIXEL_GRAY8), mask, bg), E_INVALIDARG);
  EXPECT_EQ(InpaintMaskByDistTransform(short_rows, mask, bg), E_INVALIDARG);
  EXPECT_EQ(InpaintMaskByDistTransform(in, mask, wrong), E_INVALIDARG);
  EXPECT_EQ(InpaintMaskByDistTransform(none, mask, bg), E_POINTER);
}
