#include <gtest/gtest.h>

#include <climits>

#include "GlitchTestSupport.h"
#include "effects/glitch/GlitchKernels.h"

using namespace Korvane;
using namespace GlitchTest;

namespace {

const int32_t kSizes[][2] = {{1, 1}, {1, 7}, {3, 2}, {7, 3}, {15, 2}, {16, 4}, {17, 3}, {31, 5}, {33, 2}, {100, 3}};

// Source rows padded by 12 bytes the kernels must never copy; outputs
// pre-filled differently for each form so an unwritten byte shows.
TEST(GlitchKernels, ShiftAndMergeMatchTheReferenceInBothForms) {
  uint32_t seed = 1;
  for (const auto& s : kSizes) {
    const int32_t w = s[0], h = s[1], stride = w * 4 + 12;
    const auto padded = RandomBytes(size_t(stride) * h, seed++);
    std::vector<uint8_t> packed(size_t(w) * h * 4);
    for (int32_t y = 0; y < h; ++y) std::copy_n(&padded[size_t(y) * stride], w * 4, &packed[size_t(y) * w * 4]);
    const GlitchSource src{padded.data(), w, h, stride};
    const Offsets offsets[] = {{{{0, 0}, {1, -1}, {-17, 3}}},
                               {{{w, h}, {-w, -h}, {w + 3, -(h + 9)}}},
                               {{{INT_MAX, INT_MIN}, {INT_MIN, INT_MAX}, {-(w + 40), 100}}}};
    for (const Offsets& off : offsets) {
      std::vector<uint8_t> planes[2][3];
      for (int form = 0; form < 2; ++form)
        for (int c = 0; c < 3; ++c) {
          planes[form][c].assign(size_t(w) * h, form ? 0xEE : 0x11);
          (form ? ShiftChannel_SSE : ShiftChannel)(src, c, off[c][0], off[c][1], planes[form][c].data(), 0, h);
        }
      std::vector<uint8_t> out[2] = {std::vector<uint8_t>(packed.size(), 0x11), std::vector<uint8_t>(packed.size(), 0xEE)};
      MergePlanes(src, planes[0][0].data(), planes[0][1].data(), planes[0][2].data(), out[0].data(), w * 4, 0, h);
      MergePlanes_SSE(src, planes[1][0].data(), planes[1][1].data(), planes[1][2].data(), out[1].data(), w * 4, 0, h);
      const auto want = Reference(packed, w, h, off);
      EXPECT_EQ(out[0], want) << w << "x" << h;
      EXPECT_EQ(out[1], want) << w << "x" << h;
    }
  }
}

// Bands write their own rows only (the workers share the planes), and
// degenerate or out-of-image bands write nothing.
TEST(GlitchKernels, BandsWriteOnlyTheirOwnRows) {
  const int32_t w = 37, h = 9;
  const auto bytes = RandomBytes(size_t(w) * h * 4, 7);
  const GlitchSource src{bytes.data(), w, h, w * 4};
  for (auto shift : {ShiftChannel, ShiftChannel_SSE}) {
    std::vector<uint8_t> plane(size_t(w) * h, 0x33);
    shift(src, 1, 4, -2, plane.data(), 3, 6);
    shift(src, 1, 4, -2, plane.data(), 8, 2);
    shift(src, 1, 4, -2, plane.data(), -50, -40);
    shift(src, 1, 4, -2, plane.data(), h, h + 5);
    for (int32_t y = 0; y < h; ++y) {
      if (y >= 3 && y < 6) continue;
      EXPECT_EQ(std::count(&plane[size_t(y) * w], &plane[size_t(y + 1) * w], 0x33), w) << y;
    }
  }
}

}  // namespace

// Images past the caches take non-temporal stores from the first 16-byte
// boundary of each row: the same bytes from any starting alignment.
TEST(GlitchKernels, LargeImagesGiveTheSameBytesAtAnyAlignment) {
  const int32_t w = 2051, h = 2048;
  const size_t n = size_t(w) * h;
  const auto bgra = RandomBytes(n * 4, 11), planes = RandomBytes(n * 3, 12);
  const GlitchSource src{bgra.data(), w, h, w * 4};
  for (int32_t sx : {3, -5}) {
    std::vector<uint8_t> plain(n, 0x11), simd(n, 0xEE);
    ShiftChannel(src, 2, sx, 7, plain.data(), 0, h);
    ShiftChannel_SSE(src, 2, sx, 7, simd.data(), 0, h);
    EXPECT_EQ(plain, simd) << sx;
  }
  std::vector<uint8_t> want(n * 4 + 8, 0x11);
  MergePlanes(src, &planes[0], &planes[n], &planes[2 * n], want.data(), w * 4, 0, h);
  for (size_t shift : {4, 1}) {  // 4-byte aligned streams; 1 falls back to ordinary stores
    std::vector<uint8_t> got(n * 4 + 8, 0x11);
    MergePlanes_SSE(src, &planes[0], &planes[n], &planes[2 * n], got.data() + shift, w * 4, 0, h);
    EXPECT_TRUE(std::equal(want.begin(), want.begin() + n * 4, got.begin() + shift)) << shift;
    EXPECT_EQ(got[n * 4 + shift], 0x11);
  }
}
