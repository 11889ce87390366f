#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <random>
#include <vector>

#include "GlitchTestSupport.h"
#include "effects/glitch/GlitchKernels.h"

using namespace Korvane;

namespace {

// A BGRA image with padded rows (the padding holds a marker the kernels must
// never copy), and a plane to shift it into.
struct KernelCase {
  int32_t w, h, stride;
  std::vector<uint8_t> src;

  KernelCase(int32_t w_, int32_t h_, int32_t pad, uint32_t seed) : w(w_), h(h_), stride(w_ * 4 + pad) {
    src.assign(static_cast<size_t>(stride) * h, 0xA5);
    std::mt19937 rng(seed);
    for (int32_t y = 0; y < h; ++y)
      for (int32_t i = 0; i < w * 4; ++i) src[static_cast<size_t>(y) * stride + i] = static_cast<uint8_t>(rng());
  }
  GlitchSource Source() const { return GlitchSource{src.data(), w, h, stride}; }
  uint8_t At(int32_t x, int32_t y, int32_t c) const { return src[static_cast<size_t>(y) * stride + x * 4 + c]; }
};

const int32_t kSizes[][2] = {{1, 1}, {1, 7}, {3, 2}, {7, 3}, {15, 2}, {16, 4}, {17, 3}, {31, 5}, {33, 2}, {100, 3}};

TEST(GlitchKernels, ShiftMatchesTheClampedReadInBothForms) {
  uint32_t seed = 1;
  for (const auto& s : kSizes) {
    const KernelCase k(s[0], s[1], 12, seed++);
    const int32_t offsets[][2] = {{0, 0},   {1, 0},        {-1, 1},  {5, -2},        {-17, 3},
                                  {s[0], 0}, {-s[0], 0},   {s[0] + 3, s[1] + 9}, {-(s[0] + 40), -100},
                                  {INT_MAX, INT_MIN},       {INT_MIN, INT_MAX}};
    for (const auto& o : offsets)
      for (int32_t c = 0; c < 3; ++c) {
        std::vector<uint8_t> plain(static_cast<size_t>(k.w) * k.h, 0x11), simd(plain.size(), 0xEE);
        ShiftChannel(k.Source(), c, o[0], o[1], plain.data(), 0, k.h);
        ShiftChannel_SSE(k.Source(), c, o[0], o[1], simd.data(), 0, k.h);
        ASSERT_EQ(plain, simd) << k.w << "x" << k.h << " offset " << o[0] << "," << o[1] << " channel " << c;
        for (int32_t y = 0; y < k.h; ++y)
          for (int32_t x = 0; x < k.w; ++x) {
            const int64_t sx = std::clamp<int64_t>(int64_t{x} - o[0], 0, k.w - 1);
            const int64_t sy = std::clamp<int64_t>(int64_t{y} - o[1], 0, k.h - 1);
            ASSERT_EQ(plain[static_cast<size_t>(y) * k.w + x], k.At(int32_t(sx), int32_t(sy), c))
                << k.w << "x" << k.h << " at " << x << "," << y;
          }
      }
  }
}

TEST(GlitchKernels, BandsWriteOnlyTheirOwnRows) {
  const KernelCase k(37, 9, 0, 7);
  for (auto shift : {ShiftChannel, ShiftChannel_SSE}) {
    std::vector<uint8_t> plane(static_cast<size_t>(k.w) * k.h, 0x33);
    shift(k.Source(), 1, 4, -2, plane.data(), 3, 6);
    shift(k.Source(), 1, 4, -2, plane.data(), 8, 2);     // degenerate band
    shift(k.Source(), 1, 4, -2, plane.data(), -50, -40);  // outside the image
    for (int32_t y = 0; y < k.h; ++y) {
      if (y >= 3 && y < 6) continue;
      int32_t untouched = 0;
      for (int32_t x = 0; x < k.w; ++x) untouched += plane[static_cast<size_t>(y) * k.w + x] == 0x33;
      EXPECT_EQ(untouched, k.w) << y;
    }
  }
}

TEST(GlitchKernels, MergeInterleavesPlanesWithSourceAlphaInBothForms) {
  uint32_t seed = 100;
  for (const auto& s : kSizes) {
    const KernelCase k(s[0], s[1], 8, seed++);
    const size_t n = static_cast<size_t>(k.w) * k.h;
    std::mt19937 rng(seed);
    std::vector<uint8_t> planes[3];
    for (auto& p : planes) {
      p.resize(n);
      for (auto& v : p) v = static_cast<uint8_t>(rng());
    }
    const int32_t dst_stride = k.w * 4 + 4;
    std::vector<uint8_t> plain(static_cast<size_t>(dst_stride) * k.h, 0x11), simd(plain.size(), 0xEE);
    MergePlanes(k.Source(), planes[0].data(), planes[1].data(), planes[2].data(), plain.data(), dst_stride, 0, k.h);
    MergePlanes_SSE(k.Source(), planes[0].data(), planes[1].data(), planes[2].data(), simd.data(), dst_stride, 0, k.h);
    for (int32_t y = 0; y < k.h; ++y) {
      for (int32_t x = 0; x < k.w; ++x) {
        const uint8_t* px = &plain[static_cast<size_t>(y) * dst_stride + x * 4];
        const size_t i = static_cast<size_t>(y) * k.w + x;
        ASSERT_EQ(px[0], planes[0][i]);
        ASSERT_EQ(px[1], planes[1][i]);
        ASSERT_EQ(px[2], planes[2][i]);
        ASSERT_EQ(px[3], k.At(x, y, 3));
      }
      // Row padding of the destination is not the kernels' to write.
      for (int32_t i = k.w * 4; i < dst_stride; ++i) {
        ASSERT_EQ(plain[static_cast<size_t>(y) * dst_stride + i], 0x11);
        ASSERT_EQ(simd[static_cast<size_t>(y) * dst_stride + i], 0xEE);
      }
      ASSERT_EQ(0, std::memcmp(&plain[static_cast<size_t>(y) * dst_stride], &simd[static_cast<size_t>(y) * dst_stride],
                               static_cast<size_t>(k.w) * 4))
          << k.w << "x" << k.h << " row " << y;
    }
  }
}

}  // namespace
