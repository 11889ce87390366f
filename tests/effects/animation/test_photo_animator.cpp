#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "TestSupport.h"
#include "core/Simd.h"
#include "effects/animation/AnimationKernels.h"
#include "effects/animation/PhotoAnimator.h"

using namespace Korvane;
using KorvaneTest::RandomBytes;

namespace {

// A smooth, textured photo with non-opaque alpha, a still disc, and flows.
struct Scene {
  int w, h;
  std::vector<uint8_t> photo, still;
  ImageBuffer input, mask;
  std::vector<std::vector<float>> points;
  std::vector<uint32_t> types;
  std::vector<FlowData> flows;

  Scene(int w_, int h_, bool with_still = true) : w(w_), h(h_), photo(size_t(w_) * h_ * 4), still(size_t(w_) * h_, 0) {
    std::mt19937 rng(11);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int b = int(128 + 100 * std::sin(x * 0.21) * std::cos(y * 0.13));
        const uint8_t px[4] = {uint8_t(x * 5 + y * 3 + rng() % 7), uint8_t(b), uint8_t((x ^ y) * 3), uint8_t(100 + (x + y) % 50)};
        std::memcpy(&photo[(size_t(y) * w + x) * 4], px, 4);
        const float dx = x - 0.7f * w, dy = y - 0.6f * h;
        if (with_still && dx * dx + dy * dy < 0.02f * w * h) still[size_t(y) * w + x] = 255;
      }
    input = MakeImageBuffer(photo.data(), w, h, PIXEL_BGRA32);
    mask = MakeImageBuffer(still.data(), w, h, PIXEL_GRAY8);
  }
  void Add(uint32_t type, std::vector<float> pts) {
    points.push_back(std::move(pts));
    types.push_back(type);
  }
  // Rivers flowing right and up, an anchor and a stroke.
  void AddDefaultFlows() {
    for (float band : {0.2f, 0.45f, 0.8f}) {
      std::vector<float> path;
      for (float x = 0.05f * w; x < w; x += w / 7.0f) path.insert(path.end(), {x, band * h + 0.05f * x});
      Add(FLOW_PATH, path);
    }
    Add(FLOW_ANCHOR, {0.5f * w, 0.62f * h});
    Add(FLOW_STROKE, {0.1f * w, 0.95f * h, 0.5f * w, 0.9f * h, 0.9f * w, 0.97f * h});
  }
  AnimationParam Param(ImageBuffer* out, uint32_t frames = 8, int32_t loop_mode = 2) {
    flows.clear();
    for (size_t i = 0; i < points.size(); ++i) flows.push_back({points[i].data(), uint32_t(points[i].size() / 2), types[i]});
    AnimationParam p;
    p.input = &input, p.mask = &mask, p.output = out;
    p.loop_mode = loop_mode, p.anime_frame_count = frames;
    p.p_flow = flows.empty() ? nullptr : flows.data(), p.flow_num = uint32_t(flows.size());
    return p;
  }
};

using Rig = KorvaneTest::EffectRig<PhotoAnimator>;

// Every frame of a loop, rendered into an output pre-filled with `fill`;
// with a region, the output is that region's size. With `padded`, photo,
// still mask and frame have padded rows of unequal strides. The padding and
// the bytes around the images must stay as they were.
std::vector<std::vector<uint8_t>> RenderLoop(Scene& s, int workers, int simd, uint32_t frames, uint8_t fill,
                                             const Rect* roi = nullptr, int32_t loop_mode = 2, bool padded = false) {
  KorvaneTest::TestImage in(s.w, s.h, PIXEL_BGRA32, padded ? 24 : 0), still(s.w, s.h, PIXEL_GRAY8, padded ? 7 : 0),
      out(roi ? roi->right - roi->left : s.w, roi ? roi->bottom - roi->top : s.h, PIXEL_BGRA32, padded ? 4 : 0);
  in.Fill(s.photo);
  still.Fill(s.still);
  Rig rig(workers, simd);
  AnimationParam p = s.Param(&out.buf, frames, loop_mode);
  p.input = &in.buf;
  p.mask = &still.buf;
  EXPECT_EQ(rig->Init(&p), S_OK);
  p.p_output_roi = roi;
  std::vector<std::vector<uint8_t>> result;
  for (uint32_t f = 0; f < frames; ++f) {
    out.FillConstant(fill);
    EXPECT_EQ(rig->Animate(&p, int32_t(f)), S_OK);
    result.push_back(out.Packed());
  }
  EXPECT_TRUE(in.GuardsIntact() && still.GuardsIntact() && out.GuardsIntact());
  return result;
}

}  // namespace

TEST(PhotoAnimator, NoFlowsCopiesTheRegionUnchanged) {
  Scene s(37, 23);
  const Rect roi{20, 9, 30, 16};
  for (const auto& frame : RenderLoop(s, 2, 0, 4, 0x5A, &roi))
    for (int y = 0; y < 7; ++y) ASSERT_EQ(0, std::memcmp(&frame[y * 40], &s.photo[((y + 9) * 37 + 20) * 4], 40));
}

TEST(PhotoAnimator, FirstFrameIsThePhotoAndTheStillRegionNeverMoves) {
  Scene s(96, 64);
  s.AddDefaultFlows();
  const auto frames = RenderLoop(s, 2, 0, 6, 0x33);  // the other forms give the same bytes (below)
  for (size_t f = 0; f < frames.size(); ++f) {
    size_t moved = 0;
    for (int i = 0; i < s.w * s.h; ++i) {
      const uint8_t* o = &frames[f][4 * i];
      const uint8_t* in = &s.photo[4 * i];
      if (s.still[i]) {
        ASSERT_EQ(0, std::memcmp(o, in, 4)) << "frame " << f << " pixel " << i;
      } else {
        ASSERT_EQ(o[3], 255);
        if (f == 0) { ASSERT_EQ(0, std::memcmp(o, in, 3)) << "pixel " << i; }
        moved += std::memcmp(o, in, 3) != 0;
      }
    }
    if (f > 0) { EXPECT_GT(moved, size_t(s.w * s.h / 10)) << "frame " << f << " barely moves"; }
  }
}

TEST(PhotoAnimator, LoopModesShiftAndCrossFadeAUniformFlow) {
  // A grid of paths all moving 8 pixels right: the past and future images
  // are the photo shifted by 8a and 8b pixels, cross-faded with weight alpha
  // on the past, wherever the whole neighbourhood moves together.
  struct Case {
    int32_t loop_mode, frame, past_shift, future_shift, alpha;
  };
  const Case cases[] = {{0, 2, 4, 4, 128}, {1, 2, 2, 6, 128}, {2, 2, -4, 4, 128}, {2, 1, -6, 2, 64}, {2, 0, -8, 0, 0}};
  Scene s(120, 80, false);
  for (float y = 0.0f; y <= 80.0f; y += 20.0f) {
    std::vector<float> path;
    for (float x = 0.0f; x <= 128.0f; x += 8.0f) path.insert(path.end(), {x, y});
    s.Add(FLOW_PATH, path);
  }
  for (const Case& c : cases) {
    const std::vector<uint8_t> out = RenderLoop(s, 2, 0, 4, 0x5A, nullptr, c.loop_mode)[c.frame];
    for (int y = 10; y < 70; ++y)
      for (int x = 20; x < 100; ++x)
        for (int ch = 0; ch < 3; ++ch) {
          const int past = s.photo[(y * 120 + x - c.past_shift) * 4 + ch];
          const int future = s.photo[(y * 120 + x - c.future_shift) * 4 + ch];
          ASSERT_EQ(out[(y * 120 + x) * 4 + ch], (future * (256 - c.alpha) + past * c.alpha) >> 8)
              << "mode " << c.loop_mode << " frame " << c.frame << " at " << x << "," << y;
        }
  }
}

TEST(PhotoAnimator, SameFramesForAnyWorkerCountKernelFormPaddingAndRegion) {
  Scene s(83, 57);
  s.AddDefaultFlows();
  const auto reference = RenderLoop(s, 1, 0, 5, 0x11);
  EXPECT_EQ(RenderLoop(s, 2, 0, 5, 0xEE), reference);
  EXPECT_EQ(RenderLoop(s, 8, 0, 5, 0x00), reference);
  for (int simd : KorvaneTest::Forms()) {
    EXPECT_EQ(RenderLoop(s, 3, simd, 5, 0x77, nullptr, 2, true), reference) << simd << ", padded rows";
    if (simd) {
      EXPECT_EQ(RenderLoop(s, 8, simd, 5, 0xFF), reference) << KorvaneTest::FormName(simd);
    }
  }
  // A region's frame is the same cut of the full frame, and nothing of the
  // region-sized output is left unwritten.
  const Rect roi{41, 30, 64, 47};
  for (int simd : KorvaneTest::Forms()) {
    const auto part = RenderLoop(s, 3, simd, 5, uint8_t(0x3C + simd), &roi);
    for (size_t f = 0; f < part.size(); ++f)
      for (int y = 0; y < 17; ++y)
        ASSERT_EQ(0, std::memcmp(&part[f][y * 23 * 4], &reference[f][((y + 30) * 83 + 41) * 4], 23 * 4))
            << "simd " << simd << " frame " << f << " row " << y;
  }
}

TEST(PhotoAnimator, FlowKindsAndCornerAnchors) {
  Rig rig(1);
  Scene s(100, 100);
  s.Add(FLOW_PATH, {10, 10});            // one point: nothing
  s.Add(FLOW_ANCHOR, {50, 50, 60, 60});  // first point only
  s.Add(FLOW_PATH, {20, 30, 25, 33, 31, 30});
  s.Add(7, {1, 2, 3, 4});                // unknown kind: ignored
  KorvaneTest::TestImage out(100, 100);
  AnimationParam p = s.Param(&out.buf);
  ASSERT_EQ(rig->Init(&p), S_OK);
  const auto& v = rig->MeshPoints();
  ASSERT_EQ(v.size(), 7u);
  EXPECT_TRUE(v[0].x == 50 && rig->FlowDx()[0] == 0 && v[1].x == 20 && rig->FlowDx()[1] == 5);
  EXPECT_EQ(rig->FlowDy()[2], -3);
  // 100 / 50 is below the smallest margin of 5.
  EXPECT_TRUE(v[3].x == -5 && v[3].y == -5 && v[6].x == 104 && v[6].y == 104);

  // A 5000-pixel side gets the largest margin, 50.
  Scene wide(5000, 6, false);
  KorvaneTest::TestImage out2(5000, 6);
  AnimationParam p2 = wide.Param(&out2.buf);
  ASSERT_EQ(rig->Init(&p2), S_OK);
  EXPECT_EQ(rig->MeshPoints()[1].x, 4999 + 50);
  EXPECT_EQ(rig->MeshPoints()[1].y, -5);
}

TEST(PhotoAnimator, StrokesAreResampledAlongTheirLength) {
  Rig rig(1);
  Scene s(200, 100);  // spacing 200 / 20 = 10 pixels
  // An L-shaped stroke, 60 + 40 pixels long, drawn with uneven points.
  s.Add(FLOW_STROKE, {10, 10, 13, 10, 70, 10, 70, 50});
  KorvaneTest::TestImage out(200, 100);
  AnimationParam p = s.Param(&out.buf);
  ASSERT_EQ(rig->Init(&p), S_OK);
  const auto& v = rig->MeshPoints();
  ASSERT_EQ(v.size(), 10u + 4u);
  for (int i = 0; i < 10; ++i) {
    EXPECT_NEAR(std::hypot(rig->FlowDx()[i], rig->FlowDy()[i]), 10.0, 1e-3) << i;
    if (i < 6) { EXPECT_NEAR(v[i].x, 10 + 10 * i, 1e-3); }
    if (i > 6) { EXPECT_NEAR(v[i].y, 10 * (i - 5), 1e-3); }
  }
  EXPECT_GT(rig->MovingTriangleCount(), 0u);
}

TEST(PhotoAnimator, ResultCodes) {
  Rig rig;
  PhotoAnimator& anim = *rig.fx;
  Scene s(40, 30);
  s.AddDefaultFlows();
  KorvaneTest::TestImage out(40, 30);
  AnimationParam p = s.Param(&out.buf, 8);
  EXPECT_EQ(anim.Animate(&p, 0), E_FAIL);
  EXPECT_EQ(anim.UpdateFlowPoints(&p), E_FAIL);
  EXPECT_EQ(anim.Init(nullptr), E_POINTER);

  // Each record differs from the good one in one field.
  ImageBuffer gray = s.input, colour_mask = s.mask, small_mask = MakeImageBuffer(s.still.data(), 39, 30, PIXEL_GRAY8);
  gray.pix_fmt = PIXEL_GRAY8, colour_mask.pix_fmt = PIXEL_BGRA32;
  std::vector<FlowData> empty_flow = s.flows, nan_flow = s.flows;
  std::vector<float> nan_path = {1, 2, NAN, 4};
  empty_flow[1].point_num = 0;
  nan_flow[1] = {nan_path.data(), 2, FLOW_PATH};
  // The good record with one change, given to Init or to Animate's frame 0.
  auto init = [&](auto change) { AnimationParam b = p; change(b); return anim.Init(&b); };
  auto frame = [&](auto change) { AnimationParam b = p; change(b); return anim.Animate(&b, 0); };
  EXPECT_EQ(init([](AnimationParam& b) { b.p_flow = nullptr; }), E_POINTER);
  EXPECT_EQ(init([](AnimationParam& b) { b.anime_frame_count = 1; }), E_INVALIDARG);
  EXPECT_EQ(init([](AnimationParam& b) { b.loop_mode = 3; }), E_INVALIDARG);
  EXPECT_EQ(init([&](AnimationParam& b) { b.input = &gray; }), E_INVALIDARG);
  EXPECT_EQ(init([&](AnimationParam& b) { b.mask = &small_mask; }), E_INVALIDARG);
  EXPECT_EQ(init([&](AnimationParam& b) { b.p_flow = empty_flow.data(); }), E_INVALIDARG);
  EXPECT_EQ(init([&](AnimationParam& b) { b.p_flow = nan_flow.data(); }), E_INVALIDARG);

  ASSERT_EQ(anim.Init(&p), S_OK);
  EXPECT_EQ(frame([](AnimationParam& b) { b.anime_frame_count = 9; }), E_NOTIMPL);
  EXPECT_EQ(frame([&](AnimationParam& b) { b.mask = &colour_mask; }), E_NOTIMPL);
  EXPECT_EQ(frame([&](AnimationParam& b) { b.mask = &small_mask; }), E_INVALIDARG);
  EXPECT_EQ(frame([](AnimationParam& b) { b.output = nullptr; }), E_POINTER);
  // Regions outside the image, inverted, or no longer the output's size.
  for (Rect roi : {Rect{-1, 0, 40, 30}, Rect{0, 0, 41, 30}, Rect{0, 0, 40, 31}, Rect{5, 5, 4, 30}, Rect{1, 1, 40, 30}})
    EXPECT_EQ(frame([&](AnimationParam& b) { b.p_output_roi = &roi; }), E_INVALIDARG);
  EXPECT_EQ(anim.Animate(&p, 8), E_INVALIDARG);
  EXPECT_EQ(anim.Animate(&p, -1), E_INVALIDARG);
  EXPECT_EQ(anim.Animate(&p, 7), S_OK);

  // A new frame count applies once SetFrameCount gives it.
  AnimationParam twelve = s.Param(&out.buf, 12);
  EXPECT_EQ(anim.SetFrameCount(12), S_OK);
  EXPECT_EQ(anim.Animate(&twelve, 11), S_OK);
  EXPECT_EQ(anim.Animate(&p, 0), E_NOTIMPL);

  // A mesh update that fails while meshing leaves no stale mesh behind:
  // frames are refused.
  AnimationParam broken = twelve;
  broken.p_flow = nan_flow.data();
  EXPECT_EQ(anim.UpdateFlowPoints(&broken), E_INVALIDARG);
  EXPECT_EQ(anim.Animate(&twelve, 0), E_FAIL);
  EXPECT_EQ(anim.UpdateFlowPoints(&twelve), S_OK);
  EXPECT_EQ(anim.Animate(&twelve, 1), S_OK);
  EXPECT_EQ(anim.Uninit(), S_OK);
  EXPECT_EQ(anim.Animate(&twelve, 1), E_FAIL);

  // A degenerate rest triangle has no affine map.
  const float flat[6] = {0, 0, 5, 5, 10, 10}, moved[6] = {3, 4, 13, 6, 1, 14};
  float m[6];
  EXPECT_EQ(PhotoAnimator::GetAffineMat(m, flat, moved), E_FAIL);
}

// ---- Kernels ----------------------------------------------------------------

TEST(AnimationKernels, WarpSamplesBilinearlyAndMirrorsAtBorders) {
  const int w = 9, h = 4;
  std::vector<uint8_t> img = RandomBytes(w * h * 4, 4);
  const WarpSource src{img.data(), w, h, size_t(w) * 4};
  std::vector<uint8_t> row(w * 4, 0);
  auto pix = [&](int x, int y) { return &img[(y * w + x) * 4]; };
  // Half a pixel to the right: the truncated mean of two neighbours.
  const float half[6] = {1, 0, 0.5f, 0, 1, 0};
  WarpSpan(src, half, 1, 0, w - 1, row.data());
  for (int x = 0; x < w - 1; ++x)
    for (int c = 0; c < 3; ++c) EXPECT_EQ(row[x * 4 + c], (pix(x, 1)[c] + pix(x + 1, 1)[c]) / 2);
  // Three pixels left and right of the image: mirrored, not clamped.
  const float left[6] = {1, 0, -3, 0, 1, 0}, right[6] = {1, 0, 3, 0, 1, 0};
  WarpSpan(src, left, 2, 0, 1, row.data());
  EXPECT_EQ(0, std::memcmp(row.data(), pix(3, 2), 3));
  EXPECT_EQ(row[3], 255);
  WarpSpan(src, right, 2, w - 1, w, row.data());
  EXPECT_EQ(0, std::memcmp(row.data(), pix(w - 4, 2), 3));
  // The last column and row sample only themselves.
  const float ident[6] = {1, 0, 0, 0, 1, 0};
  WarpSpan(src, ident, h - 1, 0, w, row.data());
  for (int x = 0; x < w; ++x) EXPECT_EQ(0, std::memcmp(&row[x * 4], pix(x, h - 1), 3));

}

// Each SIMD form of both kernels against the plain forms on awkward sizes
// and maps: same bytes inside the span, nothing written outside it.
TEST(AnimationKernels, SimdFormsMatchThePlainFormsBitForBit) {
  for (const KorvaneTest::Form& form : KorvaneTest::Forms()) {
    if (form.code == 0) continue;
    const auto simd_warp = KORVANE_PICK_AVX2(form.info, WarpSpan, WarpSpan_SSE, WarpSpan_AVX2).fn;
    const auto simd_warp_blend = KORVANE_PICK_AVX2(form.info, WarpBlendSpan, WarpBlendSpan_SSE, WarpBlendSpan_AVX2).fn;
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    auto random_matrix = [&](int trial, int w, int h, float* m) {
      // Rotations, scales and shifts that reach past every border, spans that
      // stay inside the image, and non-finite matrices.
      const float any[6] = {1 + u(rng), u(rng), u(rng) * 3 * w, u(rng), 1 + u(rng), u(rng) * 3 * h};
      const float inside[6] = {0.9f, 0.01f * trial, 0.3f, -0.02f, 1.0f - 0.01f * trial, 0.4f};
      std::copy(any, any + 6, m);
      if (trial % 5 == 1) std::copy(inside, inside + 6, m);
      if (trial == 38) m[2] = NAN;
      if (trial == 39) m[0] = INFINITY;
    };
    for (int w : {1, 2, 3, 5, 7, 9, 13, 17, 33})
      for (int h : {1, 2, 4, 9}) {
        std::vector<uint8_t> img = RandomBytes(size_t(w) * h * 4, w * 100 + h);
        const WarpSource src{img.data(), w, h, size_t(w) * 4};
        for (int trial = 0; trial < 40; ++trial) {
          float m[6], m2[6];
          random_matrix(trial, w, h, m);
          random_matrix(39 - trial, w, h, m2);
          const int y = int(rng() % (h + 4)) - 2;
          const int x0 = int(rng() % w), x1 = x0 + int(rng() % (w - x0 + 1));
          const int alpha = int(rng() % 257);
          for (int fused = 0; fused < 2; ++fused) {
            std::vector<uint8_t> a(w * 4, 0x00), b(w * 4, 0xFF);
            if (fused) {
              WarpBlendSpan(src, m, m2, alpha, y, x0, x1, a.data() + x0 * 4);
              simd_warp_blend(src, m, m2, alpha, y, x0, x1, b.data() + x0 * 4);
            } else {
              WarpSpan(src, m, y, x0, x1, a.data() + x0 * 4);
              simd_warp(src, m, y, x0, x1, b.data() + x0 * 4);
            }
            for (int x = 0; x < w; ++x) {
              if (x >= x0 && x < x1) {
                ASSERT_EQ(0, std::memcmp(&a[x * 4], &b[x * 4], 4))
                    << form.name << " " << w << "x" << h << " x " << x << " fused " << fused;
              } else {
                ASSERT_EQ(b[x * 4], 0xFF) << "wrote outside the span";
              }
            }
          }
        }
      }
  }
}

TEST(AnimationKernels, RasterisedTrianglesCoverTheirInteriorWithinTheImage) {
  // A triangle covers the pixels whose centres lie well inside it, and its
  // rows never leave the image, however far its vertices lie.
  const float tri[6] = {2.2f, 1.0f, 30.0f, 12.0f, 4.0f, 25.0f};
  std::vector<int> covered(40 * 30, 0);
  RasterizeTriangle(tri, 40, 30, [&](int y, int a, int b) {
    for (int x = a; x < b; ++x) ++covered[y * 40 + x];
  });
  const double d = (12.0 - 25.0) * (2.2 - 4.0) + (4.0 - 30.0) * (1.0 - 25.0);
  for (int y = 0; y < 30; ++y)
    for (int x = 0; x < 40; ++x) {
      ASSERT_LE(covered[y * 40 + x], 1);
      // Barycentric inside test with a pixel of slack.
      const double l0 = ((12.0 - 25.0) * (x - 4.0) + (4.0 - 30.0) * (y - 25.0)) / d;
      const double l1 = ((25.0 - 1.0) * (x - 4.0) + (2.2 - 4.0) * (y - 25.0)) / d;
      const double l2 = 1 - l0 - l1;
      if (l0 > 0.1 && l1 > 0.1 && l2 > 0.1) { EXPECT_EQ(covered[y * 40 + x], 1) << x << "," << y; }
      if (l0 < -0.2 || l1 < -0.2 || l2 < -0.2) { EXPECT_EQ(covered[y * 40 + x], 0) << x << "," << y; }
    }
  const float huge[6] = {-3e30f, -1e20f, 5e29f, 2.0f, 10.0f, 4e31f};
  int rows = 0;
  RasterizeTriangle(huge, 16, 8, [&](int y, int a, int b) {
    ASSERT_TRUE(y >= 0 && y < 8 && a >= 0 && b <= 16 && a < b);
    ++rows;
  });
  EXPECT_GT(rows, 0);
}
