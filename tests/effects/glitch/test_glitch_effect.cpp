#include <gtest/gtest.h>

#include <memory>

#include "GlitchTestSupport.h"
#include "core/ThreadPool.h"
#include "effects/glitch/GlitchEffect.h"

using namespace Korvane;
using namespace GlitchTest;

namespace {

// One effect on its own pool, prepared for `src` and `dst`.
struct Rig {
  CThreadPool pool;
  std::unique_ptr<GlitchEffect> fx;
  ImageBuffer in, out;

  Rig(Bgra& src, Bgra& dst, int workers = 2, int32_t simd_level = 0) {
    pool.Create(workers);
    fx = std::make_unique<GlitchEffect>(&pool);
    SystemInfo info;
    info.simd_level = simd_level;
    fx->SetSystemInfo(info);
    in = src.Buffer();
    out = dst.Buffer();
    GlitchImages images{&in, &out};
    EXPECT_EQ(fx->SetImages(&images), S_OK);
  }
  int32_t Run(int32_t type, int32_t sx, int32_t sy, int32_t radius = 0, int32_t angle = 0) {
    GlitchParam p;
    p.input = &in;
    p.output = &out;
    p.glitch_type = type;
    p.shift_x = sx;
    p.shift_y = sy;
    p.radius = radius;
    p.angle = angle;
    return fx->Process(&p);
  }
};

Bgra Render(const Bgra& src, int32_t type, int32_t sx, int32_t sy, int32_t radius, int32_t angle, int workers,
            int32_t simd_level, uint8_t fill) {
  Bgra in = src;
  Bgra out(src.width, src.height, fill);
  Rig rig(in, out, workers, simd_level);
  EXPECT_EQ(rig.Run(type, sx, sy, radius, angle), S_OK);
  return out;
}

TEST(GlitchEffect, ZeroShiftTypeZeroReproducesTheSourceWithAlpha) {
  const Bgra src = RandomImage(37, 23, 1);
  for (int32_t level : {0, 3}) EXPECT_TRUE(SamePixels(Render(src, 0, 0, 0, 0, 0, 2, level, 0xCD), src)) << level;
}

// X = trunc(shift x 0.1 / 100 x width), and Y uses the width too.
TEST(GlitchEffect, ShiftsAreScaledByTheWidth) {
  {  // 100 on 1000 px -> 100 px; type 0 moves green by +X and blue by -X
    const Bgra src = RandomImage(1000, 3, 2);
    const Bgra got = Render(src, 0, 100, 0, 0, 0, 2, 0, 0);
    EXPECT_TRUE(SamePixels(got, Reference(src, {{{-100, 0}, {100, 0}, {0, 0}}})));
  }
  {  // 5 on 100 px -> trunc(0.5) = 0: nothing moves
    const Bgra src = RandomImage(100, 4, 3);
    EXPECT_TRUE(SamePixels(Render(src, 0, 5, -5, 0, 0, 2, 0, 0), src));
  }
  {  // shift_y 100 on 1000 x 200 moves 100 rows, half the height
    const Bgra src = RandomImage(1000, 200, 4);
    const Bgra got = Render(src, 0, 0, 100, 0, 0, 2, 0, 0);
    EXPECT_TRUE(SamePixels(got, Reference(src, {{{0, -100}, {0, 100}, {0, 0}}})));
    EXPECT_EQ(got.at(7, 150)[1], src.at(7, 50)[1]);
  }
}

// Each type's channel offsets on a 200 px wide image: X = 20, Y = -10,
// R = 20; the circular ones at angles 10 and -37 (single-precision angles).
TEST(GlitchEffect, EveryTypeMovesEachChannelAsItsTableSays) {
  const Bgra src = RandomImage(200, 41, 5);
  const int32_t X = 20, Y = -10;
  const Offsets linear[6] = {
      {{{-X, -Y}, {X, Y}, {0, 0}}},  {{{-X, -Y}, {X, Y}, {X, Y}}}, {{{0, 0}, {-X, -Y}, {X, Y}}},
      {{{X, Y}, {-X, -Y}, {X, Y}}},  {{{X, Y}, {X, Y}, {-X, -Y}}}, {{{X, Y}, {0, 0}, {-X, -Y}}},
  };
  for (int32_t type = 0; type < 6; ++type) {
    EXPECT_TRUE(SamePixels(Render(src, type, 100, -50, 100, 10, 2, 0, 0), Reference(src, linear[type]))) << type;
  }
  EXPECT_TRUE(SamePixels(Render(src, 6, 100, -50, 100, 10, 2, 0, 0), Reference(src, {{{4, 19}, {14, -13}, {-19, -6}}})));
  EXPECT_TRUE(SamePixels(Render(src, 6, 0, 0, 100, -37, 2, 0, 0), Reference(src, {{{19, -2}, {-11, -16}, {-7, 18}}})));
  EXPECT_TRUE(SamePixels(Render(src, 7, 100, -50, 100, 10, 2, 0, 0), Reference(src, {{{19, 6}, {0, 0}, {-19, -6}}})));
  EXPECT_TRUE(SamePixels(Render(src, 7, 0, 0, 100, -37, 2, 0, 0), Reference(src, {{{7, -18}, {0, 0}, {-7, 18}}})));
}

TEST(GlitchEffect, CircleOffsetsAccumulateTheirAngleInSinglePrecision) {
  // At angle 0 the second step lands just short of -4pi/3 in float: -R cos
  // gives 9.99999 rather than 10, truncated to 9.
  int32_t off[3][2];
  ASSERT_TRUE(GlitchEffect::CalChannelOffsets(6, 0, 0, 20, 0, off));
  EXPECT_EQ(off[0][0], 10);
  EXPECT_EQ(off[0][1], 17);
  EXPECT_EQ(off[1][0], 9);
  EXPECT_EQ(off[1][1], -17);
  EXPECT_EQ(off[2][0], -20);
  EXPECT_EQ(off[2][1], 0);
  EXPECT_FALSE(GlitchEffect::CalChannelOffsets(8, 0, 0, 20, 0, off));
  EXPECT_FALSE(GlitchEffect::CalChannelOffsets(-1, 0, 0, 20, 0, off));
}

TEST(GlitchEffect, ShiftsBeyondTheImageRepeatTheEdgePixels) {
  // 1000 x 20: Y = 100 rows, five times the height.
  const Bgra src = RandomImage(1000, 20, 6);
  const Bgra got = Render(src, 0, 0, 100, 0, 0, 2, 3, 0);
  for (int32_t y = 0; y < 20; ++y)
    for (int32_t x = 0; x < 1000; x += 37) {
      ASSERT_EQ(got.at(x, y)[0], src.at(x, 19)[0]);  // blue from below the image: last row
      ASSERT_EQ(got.at(x, y)[1], src.at(x, 0)[1]);   // green from above: first row
      ASSERT_EQ(got.at(x, y)[2], src.at(x, y)[2]);
    }
  // A 3 px wide image with the largest shift: X = trunc(0.3) = 0, nothing moves.
  const Bgra narrow = RandomImage(3, 5, 7);
  EXPECT_TRUE(SamePixels(Render(narrow, 1, 100, 100, 0, 0, 2, 0, 0), narrow));
}

TEST(GlitchEffect, SimdAndPlainGiveTheSameBytes) {
  const int32_t sizes[][2] = {{1, 1}, {2, 3}, {15, 4}, {16, 5}, {17, 9}, {31, 2}, {33, 7}, {250, 13}, {1001, 3}};
  int seed = 10;
  for (const auto& s : sizes) {
    const Bgra src = RandomImage(s[0], s[1], seed++);
    for (int32_t type = 0; type < 8; ++type) {
      const int32_t sx = (seed * 37) % 201 - 100, sy = (seed * 53) % 201 - 100;
      const int32_t radius = (seed * 11) % 101, angle = (seed * 29) % 201 - 100;
      const Bgra plain = Render(src, type, sx, sy, radius, angle, 2, 0, 0x11);
      const Bgra simd = Render(src, type, sx, sy, radius, angle, 2, 3, 0xEE);
      EXPECT_TRUE(SamePixels(simd, plain)) << s[0] << "x" << s[1] << " type " << type;
      ++seed;
    }
  }
}

TEST(GlitchEffect, OutputDoesNotDependOnTheWorkerCount) {
  const Bgra src = RandomImage(203, 61, 20);
  for (int32_t level : {0, 3}) {
    const Bgra one = Render(src, 6, 30, -70, 80, 33, 1, level, 0);
    EXPECT_TRUE(SamePixels(Render(src, 6, 30, -70, 80, 33, 2, level, 1), one));
    EXPECT_TRUE(SamePixels(Render(src, 6, 30, -70, 80, 33, 8, level, 2), one));
  }
  // Fewer rows than workers: seven empty bands and one with all three rows.
  const Bgra flat = RandomImage(97, 3, 21);
  EXPECT_TRUE(SamePixels(Render(flat, 3, 90, 40, 0, 0, 8, 3, 0), Render(flat, 3, 90, 40, 0, 0, 1, 0, 1)));
}

TEST(GlitchEffect, RenderingInPlaceMatchesRenderingIntoAnotherImage) {
  const Bgra src = RandomImage(64, 33, 22);
  for (int32_t level : {0, 3}) {
    Bgra img = src;
    CThreadPool pool;
    pool.Create(2);
    GlitchEffect fx(&pool);
    SystemInfo info;
    info.simd_level = level;
    fx.SetSystemInfo(info);
    ImageBuffer buf = img.Buffer();
    GlitchImages images{&buf, &buf};
    ASSERT_EQ(fx.SetImages(&images), S_OK);
    GlitchParam p;
    p.input = p.output = &buf;
    p.glitch_type = 7;
    p.radius = 100;
    p.angle = 55;
    ASSERT_EQ(fx.Process(&p), S_OK);
    EXPECT_TRUE(SamePixels(img, Render(src, 7, 0, 0, 100, 55, 2, level, 0)));
  }
}

TEST(GlitchEffect, BadSettingsAndUnknownTypesLeaveTheOutputUntouched) {
  Bgra src = RandomImage(40, 10, 30);
  Bgra dst(40, 10, 0x5A);
  const Bgra untouched = dst;
  Rig rig(src, dst);
  EXPECT_EQ(rig.Run(0, 101, 0), E_INVALIDARG);
  EXPECT_EQ(rig.Run(0, 0, -101), E_INVALIDARG);
  EXPECT_EQ(rig.Run(6, 0, 0, -1, 0), E_INVALIDARG);
  EXPECT_EQ(rig.Run(6, 0, 0, 101, 0), E_INVALIDARG);
  EXPECT_EQ(rig.Run(6, 0, 0, 0, 101), E_INVALIDARG);
  EXPECT_EQ(rig.Run(6, 0, 0, 0, -101), E_INVALIDARG);
  EXPECT_EQ(rig.Run(8, 50, 50), S_OK);  // unknown types succeed silently
  EXPECT_EQ(rig.Run(-1, 50, 50), S_OK);
  EXPECT_TRUE(SamePixels(dst, untouched));
  EXPECT_EQ(rig.Run(0, 100, -100, 100, 100), S_OK);  // the limits themselves are valid
  EXPECT_EQ(rig.Run(0, -100, 100, 0, -100), S_OK);
}

TEST(GlitchEffect, MissingOrMismatchedImagesAreRefusedBeforeAnyWork) {
  Bgra src = RandomImage(40, 10, 31);
  Bgra dst(40, 10, 0x5A);
  CThreadPool pool;
  pool.Create(2);
  GlitchEffect fx(&pool);
  ImageBuffer in = src.Buffer(), out = dst.Buffer();
  GlitchParam p;
  p.input = &in;
  p.output = &out;
  EXPECT_EQ(fx.Process(&p), E_FAIL);  // before SetImages

  GlitchImages images{&in, nullptr};
  EXPECT_EQ(fx.SetImages(nullptr), E_POINTER);
  EXPECT_EQ(fx.SetImages(&images), E_POINTER);
  ImageBuffer no_data = in;
  no_data.data = nullptr;
  images = {&no_data, &out};
  EXPECT_EQ(fx.SetImages(&images), E_POINTER);
  ImageBuffer gray = in;
  gray.pix_fmt = PIXEL_GRAY8;
  images = {&gray, &out};
  EXPECT_EQ(fx.SetImages(&images), E_NOTIMPL);
  ImageBuffer short_rows = in;
  short_rows.stride = 40 * 4 - 1;
  images = {&short_rows, &out};
  EXPECT_EQ(fx.SetImages(&images), E_INVALIDARG);
  images = {&in, &out};
  ASSERT_EQ(fx.SetImages(&images), S_OK);

  EXPECT_EQ(fx.Process(nullptr), E_POINTER);
  p.output = nullptr;
  EXPECT_EQ(fx.Process(&p), E_POINTER);
  p.output = &no_data;
  EXPECT_EQ(fx.Process(&p), E_POINTER);
  p.output = &out;

  // Images larger (or smaller) than the planes SetImages made would run the
  // kernels off their ends.
  Bgra big_src = RandomImage(41, 11, 32), big_dst(41, 11);
  ImageBuffer big_in = big_src.Buffer(), big_out = big_dst.Buffer();
  GlitchParam big = p;
  big.input = &big_in;
  big.output = &big_out;
  EXPECT_EQ(fx.Process(&big), E_INVALIDARG);
  big.output = &out;  // output of another size than the input
  EXPECT_EQ(fx.Process(&big), E_INVALIDARG);
  Bgra tall_src = RandomImage(40, 12, 33), tall_dst(40, 12);
  ImageBuffer tall_in = tall_src.Buffer(), tall_out = tall_dst.Buffer();
  big.input = &tall_in;
  big.output = &tall_out;
  EXPECT_EQ(fx.Process(&big), E_INVALIDARG);
  EXPECT_TRUE(SamePixels(dst, Bgra(40, 10, 0x5A)));

  // After SetImages with the new size the same call renders.
  images = {&tall_in, &tall_out};
  ASSERT_EQ(fx.SetImages(&images), S_OK);
  EXPECT_EQ(fx.Process(&big), S_OK);
  EXPECT_TRUE(SamePixels(tall_dst, tall_src));
}

TEST(GlitchEffect, NoWorkersFailsWithTheTaskError) {
  Bgra src = RandomImage(8, 8, 40);
  Bgra dst(8, 8, 0x77);
  GlitchEffect fx(nullptr);
  ImageBuffer in = src.Buffer(), out = dst.Buffer();
  GlitchImages images{&in, &out};
  ASSERT_EQ(fx.SetImages(&images), S_OK);
  GlitchParam p;
  p.input = &in;
  p.output = &out;
  EXPECT_EQ(fx.Process(&p), E_INVALIDARG);
  EXPECT_TRUE(SamePixels(dst, Bgra(8, 8, 0x77)));
  EXPECT_EQ(fx.Release(), S_OK);
}

TEST(GlitchEffect, TaskRefusesAMissingJob) {
  int32_t result = 1;
  EXPECT_EQ(GlitchEffect::RunThreadApply(nullptr, &result), E_POINTER);
  EXPECT_EQ(result, E_POINTER);
  GlitchThreadParam p;
  p.operation = 9;  // not an operation: nothing happens
  ThreadJob job;
  job.param = &p;
  job.rect = {0, 0, 10, 10};
  EXPECT_EQ(GlitchEffect::RunThreadApply(&job, &result), S_OK);
  EXPECT_EQ(result, S_OK);
}

}  // namespace
