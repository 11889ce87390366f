#include <gtest/gtest.h>

#include "GlitchTestSupport.h"
#include "effects/glitch/GlitchEffect.h"

using namespace Korvane;
using namespace GlitchTest;

namespace {

struct Settings { int32_t type, shift_x, shift_y, radius = 0, angle = 0; };

// Renders `src` (w x h, packed BGRA) into an output pre-filled with `fill`.
std::vector<uint8_t> Render(const std::vector<uint8_t>& src, int32_t w, int32_t h, Settings s, int workers = 2,
                            int32_t simd_level = 0, uint8_t fill = 0) {
  KorvaneTest::EffectRig<GlitchEffect> fx(workers, simd_level);
  std::vector<uint8_t> in = src, out(src.size(), fill);
  ImageBuffer ib = MakeImageBuffer(in.data(), w, h), ob = MakeImageBuffer(out.data(), w, h);
  GlitchImages images{&ib, &ob};
  EXPECT_EQ(fx->SetImages(&images), S_OK);
  GlitchParam p{&ib, &ob, s.type, s.shift_x, s.shift_y, s.radius, s.angle};
  EXPECT_EQ(fx->Process(&p), S_OK);
  return out;
}

TEST(GlitchEffect, ShiftsArePixelsOfATenthOfAPercentOfTheWidth) {
  const auto a = RandomBytes(37 * 23 * 4, 1);
  EXPECT_EQ(Render(a, 37, 23, {0, 0, 0}), a);  // no shift: the source, alpha included
  const auto b = RandomBytes(1000 * 3 * 4, 2);  // 100 on 1000 px -> 100 px
  EXPECT_EQ(Render(b, 1000, 3, {0, 100, 0}), Reference(b, 1000, 3, {{{-100, 0}, {100, 0}, {0, 0}}}));
  const auto c = RandomBytes(100 * 4 * 4, 3);  // 5 on 100 px -> trunc(0.5) = 0
  EXPECT_EQ(Render(c, 100, 4, {0, 5, -5}), c);
  // The vertical shift is scaled by the width too: 100 rows on a 1000 x 200
  // image, and 100 rows of a 20-row image fill it with the edge rows.
  const auto d = RandomBytes(1000 * 200 * 4, 4);
  EXPECT_EQ(Render(d, 1000, 200, {0, 0, 100}), Reference(d, 1000, 200, {{{0, -100}, {0, 100}, {0, 0}}}));
  const auto e = RandomBytes(1000 * 20 * 4, 5);
  const auto got = Render(e, 1000, 20, {0, 0, 100});
  EXPECT_EQ(got[(5 * 1000 + 7) * 4 + 0], e[(19 * 1000 + 7) * 4 + 0]);  // blue from the last row
  EXPECT_EQ(got[(5 * 1000 + 7) * 4 + 1], e[(0 * 1000 + 7) * 4 + 1]);   // green from the first
}

// On a 200 px wide image: X = 20, Y = -10, R = 20; the circular types at
// angles 10 and -37, their offsets worked out in single precision.
TEST(GlitchEffect, EveryTypeMovesEachChannelAsItsTableSays) {
  const int32_t w = 200, h = 41, X = 20, Y = -10;
  const auto src = RandomBytes(size_t(w) * h * 4, 6);
  const Offsets linear[6] = {
      {{{-X, -Y}, {X, Y}, {0, 0}}}, {{{-X, -Y}, {X, Y}, {X, Y}}}, {{{0, 0}, {-X, -Y}, {X, Y}}},
      {{{X, Y}, {-X, -Y}, {X, Y}}}, {{{X, Y}, {X, Y}, {-X, -Y}}}, {{{X, Y}, {0, 0}, {-X, -Y}}},
  };
  for (int32_t t = 0; t < 6; ++t) EXPECT_EQ(Render(src, w, h, {t, 100, -50, 100, 10}), Reference(src, w, h, linear[t])) << t;
  EXPECT_EQ(Render(src, w, h, {6, 100, -50, 100, 10}), Reference(src, w, h, {{{4, 19}, {14, -13}, {-19, -6}}}));
  EXPECT_EQ(Render(src, w, h, {6, 0, 0, 100, -37}), Reference(src, w, h, {{{19, -2}, {-11, -16}, {-7, 18}}}));
  EXPECT_EQ(Render(src, w, h, {7, 100, -50, 100, 10}), Reference(src, w, h, {{{19, 6}, {0, 0}, {-19, -6}}}));
  EXPECT_EQ(Render(src, w, h, {7, 0, 0, 100, -37}), Reference(src, w, h, {{{7, -18}, {0, 0}, {-7, 18}}}));
  // At angle 0 the second step of type 6 lands just short of -4pi/3 in
  // single precision: -R cos gives 9.99999, truncated to 9.
  int32_t off[3][2];
  ASSERT_TRUE(GlitchEffect::CalChannelOffsets(6, 0, 0, 20, 0, off));
  EXPECT_EQ(off[1][0], 9);
}

// SIMD and plain forms, any worker count: the same bytes (in place: below).
TEST(GlitchEffect, FormsAndWorkerCountsAgree) {
  const int32_t sizes[][2] = {{1, 1}, {2, 3}, {15, 4}, {17, 9}, {33, 7}, {250, 13}, {1001, 3}};
  uint32_t seed = 10;
  for (const auto& s : sizes) {
    const auto src = RandomBytes(size_t(s[0]) * s[1] * 4, seed);
    for (int32_t t = 0; t < 8; ++t, ++seed) {
      const Settings set{t, int32_t(seed * 37 % 201) - 100, int32_t(seed * 53 % 201) - 100, int32_t(seed * 11 % 101),
                         int32_t(seed * 29 % 201) - 100};
      const auto plain = Render(src, s[0], s[1], set, 1, 0, 0x11);
      EXPECT_EQ(Render(src, s[0], s[1], set, 2, 3, 0xEE), plain) << s[0] << "x" << s[1] << " type " << t;
      EXPECT_EQ(Render(src, s[0], s[1], set, 8, 3, 0x11), plain) << s[0] << "x" << s[1] << " type " << t;
    }
  }
}

TEST(GlitchEffect, RefusalsLeaveTheOutputUntouched) {
  KorvaneTest::Runner run;
  GlitchEffect fx(&run.pool);
  auto src = RandomBytes(40 * 10 * 4, 8), big = RandomBytes(41 * 10 * 4, 9);
  std::vector<uint8_t> dst(src.size(), 0x5A), big_dst(big.size(), 0x5A);
  const auto untouched = dst;
  ImageBuffer in = MakeImageBuffer(src.data(), 40, 10), out = MakeImageBuffer(dst.data(), 40, 10);
  ImageBuffer big_in = MakeImageBuffer(big.data(), 41, 10), big_out = MakeImageBuffer(big_dst.data(), 41, 10);
  GlitchParam p{&in, &out, 0, 50, 0, 0, 0};
  EXPECT_EQ(fx.Process(&p), E_FAIL);  // before SetImages

  ImageBuffer no_data = in, gray = in, short_rows = in;
  no_data.data = nullptr;
  gray.pix_fmt = PIXEL_GRAY8;
  short_rows.stride -= 1;
  const GlitchImages bad[] = {{&in, nullptr}, {&no_data, &out}, {&gray, &out}, {&short_rows, &out}, {&in, &big_out}};
  const int32_t codes[] = {E_POINTER, E_POINTER, E_NOTIMPL, E_INVALIDARG, E_INVALIDARG};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(fx.SetImages(&bad[i]), codes[i]) << i;
  EXPECT_EQ(fx.SetImages(nullptr), E_POINTER);
  GlitchImages images{&in, &out};
  ASSERT_EQ(fx.SetImages(&images), S_OK);

  const GlitchParam refused[] = {
      {&in, &out, 0, 101, 0, 0, 0},  {&in, &out, 0, 0, -101, 0, 0},  {&in, &out, 6, 0, 0, -1, 0},
      {&in, &out, 6, 0, 0, 0, 101},  {&in, nullptr, 0, 50, 0, 0, 0}, {&in, &no_data, 0, 50, 0, 0, 0},
      {&big_in, &big_out, 0, 50, 0, 0, 0},  // not the size SetImages prepared the planes for
      {&big_in, &out, 0, 50, 0, 0, 0},
  };
  const int32_t refused_codes[] = {E_INVALIDARG, E_INVALIDARG, E_INVALIDARG, E_INVALIDARG,
                                   E_POINTER,    E_POINTER,    E_INVALIDARG, E_INVALIDARG};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(fx.Process(&refused[i]), refused_codes[i]) << i;
  EXPECT_EQ(fx.Process(nullptr), E_POINTER);
  GlitchParam unknown{&in, &out, 8, 50, 50, 0, 0};  // unknown types succeed and write nothing
  EXPECT_EQ(fx.Process(&unknown), S_OK);
  unknown.glitch_type = -1;
  EXPECT_EQ(fx.Process(&unknown), S_OK);
  EXPECT_EQ(dst, untouched);
  EXPECT_EQ(big_dst, std::vector<uint8_t>(big.size(), 0x5A));

  GlitchParam limits{&in, &out, 6, -100, 100, 100, -100};  // the limits themselves are valid
  EXPECT_EQ(fx.Process(&limits), S_OK);
  GlitchEffect no_pool(nullptr);  // no workers: the task error comes back
  ASSERT_EQ(no_pool.SetImages(&images), S_OK);
  EXPECT_EQ(no_pool.Process(&limits), E_INVALIDARG);
}

}  // namespace

// Padded rows, unequal strides for input and output, and the output as the
// input itself: the packed result, with the padding and the bytes around the
// images untouched.
TEST(GlitchEffect, PaddedRowsRenderAsPacked) {
  const int32_t w = 61, h = 29;
  const auto src = RandomBytes(size_t(w) * h * 4, 12);
  const Settings type6{6, 0, 0, 40, 17};
  for (int32_t simd : {0, 5}) {
    const auto want = Render(src, w, h, type6, 2, simd);
    for (bool in_place : {false, true}) {
      KorvaneTest::TestImage in(w, h, PIXEL_BGRA32, 12), out(w, h, PIXEL_BGRA32, 40);
      in.Fill(src);
      KorvaneTest::EffectRig<GlitchEffect> rig(3, simd);
      ImageBuffer ib = in.buf, ob = in_place ? in.buf : out.buf;
      GlitchImages images{&ib, &ob};
      ASSERT_EQ(rig->SetImages(&images), S_OK);
      GlitchParam p{&ib, &ob, type6.type, type6.shift_x, type6.shift_y, type6.radius, type6.angle};
      ASSERT_EQ(rig->Process(&p), S_OK);
      const auto got = (in_place ? in : out).Packed();
      EXPECT_EQ(got, want) << "simd " << simd << (in_place ? " in place: " : ": ")
                           << KorvaneTest::FirstDifference(got, want, w);
      EXPECT_TRUE(in.GuardsIntact() && out.GuardsIntact());
    }
  }
}
