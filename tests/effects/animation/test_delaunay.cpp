#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <random>
#include <vector>

#include "MeshCheck.h"
#include "effects/animation/Delaunay.h"

using namespace Korvane;
using namespace MeshCheck;

namespace {

Points Uniform(uint32_t n, float size, uint32_t seed, float offset = 0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, size);
  Points p(2 * n);
  for (float& v : p) v = u(rng) + offset;
  return p;
}

Points Grid(int w, int h, double angle_deg = 0, double spacing = 1) {
  const double c = std::cos(angle_deg * M_PI / 180), s = std::sin(angle_deg * M_PI / 180);
  Points p;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      p.push_back(static_cast<float>((x * c - y * s) * spacing));
      p.push_back(static_cast<float>((x * s + y * c) * spacing));
    }
  return p;
}

// 20 Gaussian clusters of 300 points, `sigma` wide, `dx` apart in x and on
// five rows `dy` apart.
Points Clusters(float sigma, float dx, float dy, uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> g(0.0f, sigma);
  Points p;
  for (int c = 0; c < 20; ++c)
    for (int i = 0; i < 300; ++i) p.insert(p.end(), {c * dx + g(rng), (c % 5) * dy + g(rng)});
  return p;
}

// Runs the triangulation on another thread and fails hard if it does not end
// in time: a hang must not stall the whole test run.
int32_t TriangulateWithin(Delaunay& d, const Points& pts, int seconds = 20) {
  auto job = std::async(std::launch::async, [&] { return d.Triangulate(pts.data(), uint32_t(pts.size() / 2)); });
  if (job.wait_for(std::chrono::seconds(seconds)) != std::future_status::ready) {
    std::fprintf(stderr, "Triangulate did not finish within %d s\n", seconds);
    std::_Exit(1);
  }
  return job.get();
}

}  // namespace

TEST(Delaunay, RandomGridAndClusteredSetsGiveValidMeshes) {
  Delaunay d;
  for (uint32_t n : {4u, 5u, 10u, 100u, 1000u, 20000u}) {
    const Points pts = Uniform(n, 4096.0f, n);
    ASSERT_EQ(d.Triangulate(pts.data(), n), S_OK) << n;
    const MeshInfo m = CheckMesh(d, pts);
    EXPECT_EQ(m.vertices, n) << "points in general position are all kept";
  }
  for (double angle : {0.0, 30.0, 45.0}) {  // cocircular quads and collinear hull sides
    const Points pts = Grid(60, 40, angle, 7.0);
    ASSERT_EQ(d.Triangulate(pts.data(), 2400), S_OK) << angle;
    EXPECT_EQ(CheckMesh(d, pts).vertices, 2400u) << angle;
  }
  const Points clusters = Clusters(30.0f, 970.0f, 2110.0f, 7);
  ASSERT_EQ(d.Triangulate(clusters.data(), 6000), S_OK);
  EXPECT_GE(CheckMesh(d, clusters).vertices, 5990u);  // a few pairs lie within 0.1 pixel
}

TEST(Delaunay, RegressionDenseSetDoesNotFoldTheHull) {
  // Hull edges that a new point faced only within the tolerance used to stay
  // on the hull, bending it inwards; from about 300k uniform points on, later
  // points folded the ring over those bends and triangles overlapped.
  const Points pts = Uniform(300000, 4096.0f, 2024);
  Delaunay d;
  ASSERT_EQ(d.Triangulate(pts.data(), 300000), S_OK);
  const MeshInfo m = CheckMesh(d, pts);
  EXPECT_GT(m.vertices, 299900u);
  EXPECT_LT(m.hull, 100u);
}

TEST(Delaunay, SmallCasesAndTolerance) {
  Delaunay d;
  const Points tri = {0, 0, 0, 10, 10, 0};  // clockwise on screen: stored the other way round
  ASSERT_EQ(d.Triangulate(tri.data(), 3), S_OK);
  EXPECT_EQ(CheckMesh(d, tri).triangles, 1u);

  const float line[] = {0, 0, 1, 1, 2, 2, 3, 3};
  EXPECT_EQ(d.Triangulate(line, 3), E_INVALIDARG);
  EXPECT_EQ(d.Triangulate(line, 4), E_INVALIDARG);
  const float same[] = {5, 5, 5, 5, 5, 5};
  EXPECT_EQ(d.Triangulate(same, 3), E_INVALIDARG);
  EXPECT_EQ(d.GetTriangleCount(), 0u);

  // X sits 0.001 outside the hull next to B: it sees BC only within the 0.1
  // tolerance, so it is left out rather than joined by a sliver.
  const Points p = {0, 0, 10, 0, 5, 8, 10.001f, 0.0005f};
  ASSERT_EQ(d.Triangulate(p.data(), 4), S_OK);
  const MeshInfo m = CheckMesh(d, p);
  EXPECT_EQ(m.triangles, 1u);
  EXPECT_FALSE(m.used[3]);
  // Y lies 0.00004 outside the line of AB, past B: it clearly sees BC and is
  // also joined across AB, which it faces, so the hull stays convex.
  const Points q = {0, 0, 10, 0, 5, 8, 30, -0.00004f};
  ASSERT_EQ(d.Triangulate(q.data(), 4), S_OK);
  EXPECT_EQ(CheckMesh(d, q).triangles, 3u);
}

TEST(Delaunay, InterfaceCodes) {
  Delaunay d;
  uint32_t out[6] = {7, 7, 7, 7, 7, 7};
  EXPECT_EQ(d.GetTriangles(out, 0), S_OK);  // nothing to copy
  EXPECT_EQ(d.GetTriangles(nullptr, 0), E_POINTER);
  EXPECT_EQ(d.Triangulate(static_cast<const float*>(nullptr), 10), E_POINTER);
  const Points ok = {0, 0, 10, 0, 5, 8};
  EXPECT_EQ(d.Triangulate(ok.data(), 2), E_INVALIDARG);
  ASSERT_EQ(d.Triangulate(ok.data(), 3), S_OK);
  EXPECT_EQ(d.GetTriangles(nullptr, 0), E_INVALIDARG);  // the capacity is checked before the pointer
  EXPECT_EQ(d.GetTriangles(out, -1), E_INVALIDARG);
  EXPECT_EQ(d.GetTriangles(nullptr, 1), E_POINTER);
  EXPECT_EQ(d.GetTriangles(out, 2), S_OK);
  EXPECT_EQ(out[3], 7u) << "a larger capacity copies only the triangles that exist";

  // Non-finite coordinates are refused before any work: the last mesh stays.
  for (float bad : {NAN, INFINITY, -INFINITY}) {
    const Points p = {0, 0, 10, 0, 5, bad, 3, 3};
    EXPECT_EQ(d.Triangulate(p.data(), 4), E_INVALIDARG);
    EXPECT_EQ(d.GetTriangleCount(), 1u);
  }
  EXPECT_EQ(d.Reset(), S_OK);
  EXPECT_EQ(d.GetTriangleCount(), 0u);
}

TEST(Delaunay, NearDuplicatesAndSeedPointsAreDropped) {
  Delaunay d;
  Points pts = Uniform(500, 1000.0f, 3);
  Points doubled = pts;
  for (size_t i = 0; i < pts.size(); ++i) doubled.push_back(pts[i] + (i % 2 ? 0.00006f : -0.00005f));
  ASSERT_EQ(d.Triangulate(doubled.data(), 1000), S_OK);
  const MeshInfo m = CheckMesh(d, doubled);
  EXPECT_EQ(m.vertices, 500u);
  for (uint32_t i = 0; i < 500; ++i) EXPECT_NE(m.used[i], m.used[i + 500]) << "exactly one of each pair is kept";
  ASSERT_EQ(d.Triangulate(pts.data(), 500), S_OK);
  EXPECT_EQ(d.GetTriangleCount(), m.triangles);
}

TEST(Delaunay, NegativeCoordinatesKeepTheBoundingBoxQuirk) {
  // The box maxima start at FLT_MIN, so with all-negative points the centre is
  // half the minima, not the middle of the box; the seed's first vertex is
  // the point nearest to it, and the first triangle starts with it.
  Points pts = Uniform(400, 1000.0f, 11, -1200.0f);
  float min_x = 1e9f, min_y = 1e9f;
  for (size_t i = 0; i < pts.size(); i += 2) min_x = std::min(min_x, pts[i]), min_y = std::min(min_y, pts[i + 1]);
  const float cx = (min_x + 1.17549435e-38f) * 0.5f, cy = (min_y + 1.17549435e-38f) * 0.5f;
  uint32_t nearest = 0;
  for (uint32_t i = 1; i < 400; ++i)
    if (std::hypot(pts[2 * i] - cx, pts[2 * i + 1] - cy) < std::hypot(pts[2 * nearest] - cx, pts[2 * nearest + 1] - cy))
      nearest = i;
  Delaunay d;
  ASSERT_EQ(d.Triangulate(pts.data(), 400), S_OK);
  EXPECT_EQ(CheckMesh(d, pts).vertices, 400u);
  EXPECT_EQ(d.TriangleData()[0], nearest);
}

TEST(Delaunay, ReusedObjectMatchesFreshOne) {
  // Storage is reused between runs; stale ring or hash entries must not leak
  // into a later, smaller or larger, triangulation.
  Delaunay reused;
  for (uint32_t n : {3000u, 50u, 7000u, 4u, 3000u}) {
    const Points pts = Uniform(n, 500.0f, n + 1);
    Delaunay fresh;
    ASSERT_EQ(reused.Triangulate(pts.data(), n), S_OK);
    ASSERT_EQ(fresh.Triangulate(pts.data(), n), S_OK);
    ASSERT_EQ(reused.GetTriangleCount(), fresh.GetTriangleCount());
    EXPECT_TRUE(std::equal(reused.TriangleData(), reused.TriangleData() + 3 * reused.GetTriangleCount(),
                           fresh.TriangleData()));
  }
}

TEST(Delaunay, AdversarialSetsTerminateWithAMeshOrACode) {
  Points slanted = Grid(50000, 1, 33.0, 1.0);  // rounding scatters the points just off the line
  Points line_plus_two = slanted, far = Grid(200, 200, 0, 1.0), mixed = Uniform(5000, 1e30f, 8);
  Points repeated, arc, dense = Clusters(3.0f, 97.0f, 211.0f, 9);  // spacing far below the 0.1 tolerance
  line_plus_two.insert(line_plus_two.end(), {100.0f, -40.0f, 20000.0f, 30000.0f});
  for (float& v : far) v += 3.0e6f;
  for (size_t i = 0; i < mixed.size(); i += 7) mixed[i] *= 1e-35f;
  for (int i = 0; i < 40000; ++i) repeated.insert(repeated.end(), {float(i % 5 * 10), float(i % 5 * i % 3)});
  for (int i = 0; i < 20000; ++i)
    arc.insert(arc.end(), {float(1000 + 900 * std::cos(i * 0.000314159)), float(1000 + 900 * std::sin(i * 0.000314159))});
  const std::pair<const char*, Points> sets[] = {
      {"collinear", Grid(100000, 1, 0, 0.5)}, {"slanted line", slanted}, {"line plus two", line_plus_two},
      {"rotated grid", Grid(300, 300, 17.0, 1.0)}, {"grid far from the origin", far}, {"repeated", repeated},
      {"tiny", Uniform(5000, 1e-3f, 5)}, {"huge", Uniform(5000, 3.0e38f, 6, -1.5e38f)}, {"mixed scales", mixed},
      {"arc", arc}, {"dense clusters", dense}};

  Delaunay d;
  for (auto& [name, pts] : sets) {
    const int32_t hr = TriangulateWithin(d, pts);
    if (hr == S_OK) {
      SCOPED_TRACE(name);
      if (d.GetTriangleCount() > 0) CheckMesh(d, pts, kStructure);
    } else {
      EXPECT_EQ(hr, E_INVALIDARG) << name;
    }
  }
}
