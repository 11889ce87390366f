// Generated point sets that break float-precision triangulations: close pairs
// strung along circles and spirals, strokes that leave the photo, scales from
// 1 to 1e8 pixels. Every mesh must pass the checker: counter-clockwise
// triangles with non-zero area, mirrored half-edges, one hull ring, empty
// circumcircles, the hull covered.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "MeshCheck.h"
#include "TestSupport.h"
#include "effects/animation/Delaunay.h"
#include "effects/animation/PhotoAnimator.h"

using namespace Korvane;
using namespace MeshCheck;

namespace {

// Points along a curve, mostly 5..20 px apart, with every `pair_every`-th
// point doubled `gap` pixels away.
template <class Curve>
Points AlongCurve(Curve curve, double length, double gap, int pair_every, std::mt19937& rng) {
  std::uniform_real_distribution<double> step(5.0, 20.0), unit(0.0, 1.0);
  Points p;
  int k = 0;
  for (double s = 0; s < length; s += step(rng), ++k) {
    double x, y, nx, ny;
    curve(s, x, y, nx, ny);
    p.insert(p.end(), {float(x), float(y)});
    if (k % pair_every == 0) {
      // Mostly across the curve, sometimes along it.
      const double a = std::atan2(ny, nx) + (unit(rng) - 0.5) * 2.5;
      p.insert(p.end(), {float(x + gap * std::cos(a)), float(y + gap * std::sin(a))});
    }
  }
  return p;
}

// Circles and spirals in a box of `size` pixels with close pairs `gap` apart.
Points Curves(double size, double gap, uint32_t seed, int curves = 6) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  Points all;
  for (int c = 0; c < curves; ++c) {
    const double cx = size * (0.2 + 0.6 * unit(rng)), cy = size * (0.2 + 0.6 * unit(rng));
    const double r = size * (0.05 + 0.3 * unit(rng));
    // Circles, and Archimedean spirals parametrised roughly by arc length.
    const bool spiral = c % 2 == 1;
    const double turns = spiral ? 2 + 3 * unit(rng) : 0;
    const Points p = AlongCurve([&](double s, double& x, double& y, double& nx, double& ny) {
          const double t = spiral ? std::sqrt(2 * s / r * turns * 2 * M_PI) : s / r;
          const double rad = spiral ? r * t / (turns * 2 * M_PI) : r;
          nx = std::cos(t), ny = std::sin(t);
          x = cx + rad * nx, y = cy + rad * ny;
        }, spiral ? M_PI * r * turns : 2 * M_PI * r, gap, spiral ? 2 : 1 + c % 3, rng);
    all.insert(all.end(), p.begin(), p.end());
  }
  return all;
}

// Animates every frame of `flows` over a noise photo with no still region.
void ExpectFramesRender(int w, int h, const FlowData* flows, uint32_t flow_num, uint32_t frames) {
  KorvaneTest::TestImage photo(w, h), still(w, h, PIXEL_GRAY8), out(w, h);
  photo.FillNoise(4);
  still.FillConstant(0);
  AnimationParam param;
  param.input = &photo.buf, param.mask = &still.buf, param.output = &out.buf;
  param.anime_frame_count = frames, param.p_flow = flows, param.flow_num = flow_num;
  KorvaneTest::EffectRig<PhotoAnimator> rig;
  ASSERT_EQ(rig->Init(&param), S_OK);
  for (uint32_t f = 0; f < frames; ++f) EXPECT_EQ(rig->Animate(&param, f), S_OK) << "frame " << f;
  EXPECT_TRUE(out.GuardsIntact());
}

void Scaled(Points& p, double scale) {
  for (float& v : p) v = float(v * scale);
}

}  // namespace

TEST(DelaunayGenerated, ClosePairsAlongCurvesAtEveryScale) {
  // The failing shape: about 10 000 points in a 4096-pixel box, many pairs
  // 0.26 px apart along curves.
  Delaunay d;
  const Points shape = Curves(4096, 0.26, 1, 24);
  ASSERT_GT(shape.size() / 2, 8000u);
  ASSERT_EQ(d.Triangulate(shape.data(), uint32_t(shape.size() / 2)), S_OK);
  EXPECT_GT(CheckMesh(d, shape).vertices, shape.size() / 2 - 5) << "pairs 0.26 px apart are kept";
  // Many seeds, scales 1..1e8, gaps both above and below the 0.1 px duplicate
  // distance.
  int sets = 0;
  for (uint32_t seed = 0; seed < 400; ++seed) {
    for (double scale : {1.0, 37.0, 1e4, 1e8}) {
      Points p = Curves(256, seed % 2 ? 0.26 : 0.05, seed, 3);
      Scaled(p, scale / 256 * 4);
      ASSERT_EQ(d.Triangulate(p.data(), uint32_t(p.size() / 2)), S_OK) << seed << " " << scale;
      SCOPED_TRACE(testing::Message() << "seed " << seed << " scale " << scale);
      CheckMesh(d, p);
      if (HasFailure()) return;
      ++sets;
    }
  }
  EXPECT_EQ(sets, 1600);
}

TEST(DelaunayGenerated, HugeStrokesAreResampledByThePhotosSize) {
  // Two strokes reaching 1e8 px over a 4096-pixel photo used to become
  // 200 004 mesh points; the animator now keeps a few thousand.
  const int w = 4096, h = 64;
  const float a[] = {10, 10, 1e8f, 3e7f}, b[] = {4000, 50, -5e7f, -1e8f};
  const FlowData flows[] = {{a, 2, FLOW_STROKE}, {b, 2, FLOW_STROKE}};
  ExpectFramesRender(w, h, flows, 2, 2);
  // The same stroke set, meshed directly, passes the checker.
  Points p = {-50, -5, w - 1 + 50.f, -5, -50, h - 1 + 5.f, w - 1 + 50.f, h - 1 + 5.f};
  for (const float* s : {a, b})
    for (int k = 0; k < 2100; ++k) p.insert(p.end(), {s[0] + (s[2] - s[0]) * k / 2100.f, s[1] + (s[3] - s[1]) * k / 2100.f});
  Delaunay d;
  ASSERT_EQ(d.Triangulate(p.data(), uint32_t(p.size() / 2)), S_OK);
  CheckMesh(d, p);
}

TEST(DelaunayGenerated, DegenerateAndExtremeSmallSets) {
  Delaunay d;
  // A far point used to leave two flat triangles behind.
  // (The coverage check sums areas in double, too coarse at 2e19.)
  const Points far = {0, 0, 10, 0, 0, 10, 10, 10, 5, 5, 2e19f, 2e19f};
  ASSERT_EQ(d.Triangulate(far.data(), 6), S_OK);
  EXPECT_EQ(CheckMesh(d, far, kStructure).vertices, 6u);
  for (uint32_t t = 0; t < d.GetTriangleCount(); ++t) {
    const uint32_t* v = d.TriangleData() + 3 * t;
    EXPECT_GT(Cross(&far[2 * v[0]], &far[2 * v[1]], &far[2 * v[2]]), 0.0) << t;
  }
  // Random small sets of lattice points (many collinear and cocircular
  // quadruples) at scales far apart; a flat set answers E_INVALIDARG.
  std::mt19937 rng(3);
  for (int k = 0; k < 3000; ++k) {
    const int n = 3 + k % 12;
    const double scale = std::pow(10.0, int(k % 9) - 1);
    Points p;
    for (int i = 0; i < n; ++i) p.insert(p.end(), {float((rng() % 5) * scale), float((rng() % 4) * scale)});
    const int32_t hr = d.Triangulate(p.data(), uint32_t(n));
    if (hr == E_INVALIDARG) continue;  // all on one line or within 0.1 px
    ASSERT_EQ(hr, S_OK);
    SCOPED_TRACE(testing::Message() << "set " << k);
    CheckMesh(d, p);
    if (HasFailure()) return;
  }
}

TEST(DelaunayGenerated, SingleStrokeFlowOnASmallPhotoAnimates) {
  // A stroke mostly outside a 19 x 46 photo used to give a flat triangle and
  // E_FAIL on every frame.
  const float stroke[] = {6.5f, 102.0f, -90.0f, 41.88f};
  const FlowData flow{stroke, 2, FLOW_STROKE};
  ExpectFramesRender(19, 46, &flow, 1, 8);
}

TEST(DelaunayGenerated, RandomFlowsReachingOutsideThePhotoAnimate) {
  // Flows whose points reach up to twice the photo's size outside it, of
  // every kind; about 1 in 400 of these used to hit a flat triangle.
  std::mt19937 rng(17);
  for (int k = 0; k < 1200; ++k) {
    const int w = 8 + rng() % 60, h = 8 + rng() % 60;
    std::uniform_real_distribution<float> ux(-2.0f * w, 3.0f * w), uy(-2.0f * h, 3.0f * h);
    std::vector<std::vector<float>> pts(1 + rng() % 3);
    std::vector<FlowData> flows;
    for (auto& p : pts) {
      const int n = 1 + rng() % 6;
      for (int i = 0; i < n; ++i) p.insert(p.end(), {ux(rng), uy(rng)});
      flows.push_back({p.data(), uint32_t(n), uint32_t(rng() % 3)});
    }
    SCOPED_TRACE(testing::Message() << "flow set " << k);
    ExpectFramesRender(w, h, flows.data(), uint32_t(flows.size()), 2);
    if (HasFailure()) return;
  }
}

TEST(DelaunayGenerated, FuzzStrokeToAFarPointAnimates) {
  // Found by the flow-file fuzz target: a stroke to x = 6.7e27 gave sample
  // triangles whose area rounds to zero in the animator's affine inverse.
  const float stroke[] = {3.5f, 102.0f, 6666666666666666666666666665.0f, 41.88f};
  const FlowData flow{stroke, 2, FLOW_STROKE};
  ExpectFramesRender(23, 17, &flow, 1, 3);
}
