// The mesh checker shared by the triangulation tests: structure, winding,
// empty circumcircles and coverage of a Delaunay result.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

#include "ExactCross.h"
#include "effects/animation/Delaunay.h"

namespace MeshCheck {

using namespace Korvane;

using Points = std::vector<float>;  // interleaved x, y
constexpr uint32_t kNone = Delaunay::INVALID;

inline double HullArea(const Points& pts, const std::vector<uint32_t>& ids) {  // monotone chain, doubled area
  using P = std::pair<double, double>;
  std::vector<P> p, h(2 * ids.size());
  for (uint32_t i : ids) p.emplace_back(pts[2 * i], pts[2 * i + 1]);
  std::sort(p.begin(), p.end());
  auto turn = [](const P& o, const P& a, const P& b) { return (a.first - o.first) * (b.second - o.second) - (a.second - o.second) * (b.first - o.first); };
  size_t k = 0;
  for (size_t i = 0, t = 2; i < 2 * p.size() - 1; ++i) {  // lower chain, then upper chain
    if (i == p.size()) t = k + 1;
    const P& q = p[i < p.size() ? i : 2 * p.size() - 2 - i];
    while (k >= t && turn(h[k - 2], h[k - 1], q) <= 0) --k;
    h[k++] = q;
  }
  double area = 0;
  for (size_t i = 0; i + 1 < k; ++i) area += h[i].first * h[i + 1].second - h[i + 1].first * h[i].second;
  return std::fabs(area);
}

struct MeshInfo {
  uint32_t triangles = 0, vertices = 0, hull = 0;
  std::vector<bool> used;
};

// Checks the last triangulation in `d` of `pts` and returns its counts. The
// structure is always checked: indices in range, mirrored half-edges, one hull
// ring, Euler's count. Full checks add the geometry (positive winding, empty
// circumcircles, triangles covering the convex hull of the points kept); sets
// whose float geometry degenerates (sub-pixel spacing, overflow) skip them.
enum Checks { kStructure, kFull };
inline MeshInfo CheckMesh(const Delaunay& d, const Points& pts, Checks checks = kFull) {
  const bool full = checks == kFull;
  MeshInfo info;
  const uint32_t n = static_cast<uint32_t>(pts.size() / 2);
  info.triangles = d.GetTriangleCount();
  std::vector<uint32_t> tri(3 * info.triangles + 3, 0xABCDu);
  EXPECT_EQ(d.GetTriangles(tri.data(), static_cast<int32_t>(info.triangles) + 1), S_OK);
  EXPECT_EQ(tri[3 * info.triangles], 0xABCDu) << "wrote past the triangles that exist";
  const uint32_t* half = d.HalfedgeData();
  const uint32_t m = 3 * info.triangles;
  info.used.assign(n, false);
  std::map<uint32_t, uint32_t> hull_next;
  double area = 0;
  for (uint32_t e = 0; e < m; ++e) {
    const uint32_t a = tri[e], b = tri[e - e % 3 + (e + 1) % 3];
    if (a >= n) return ADD_FAILURE() << "index out of range", info;
    info.used[a] = true;
    const uint32_t h = half[e];
    if (h == kNone) {
      EXPECT_TRUE(hull_next.emplace(a, b).second) << "vertex " << a << " starts two hull edges";
      continue;
    }
    if (h >= m || half[h] != e || tri[h] != b || tri[h - h % 3 + (h + 1) % 3] != a)
      return ADD_FAILURE() << "half-edge " << e << " not mirrored", info;
    if (full && e < h) {  // the vertex across each inner edge lies outside the circle
      const float* q = &pts[2 * tri[h - h % 3 + (h + 2) % 3]];
      double dx[3], dy[3], l[3], scale = 0;
      for (uint32_t i = 0; i < 3; ++i) {
        const float* v = &pts[2 * tri[e - e % 3 + i]];
        dx[i] = double(v[0]) - q[0], dy[i] = double(v[1]) - q[1], l[i] = dx[i] * dx[i] + dy[i] * dy[i];
        scale = std::max(scale, l[i]);
      }
      const double det = l[0] * (dx[1] * dy[2] - dx[2] * dy[1]) - l[1] * (dx[0] * dy[2] - dx[2] * dy[0]) +
                         l[2] * (dx[0] * dy[1] - dx[1] * dy[0]);
      EXPECT_GE(det, -1e-5 * scale * scale) << "edge " << e << " is not locally Delaunay";
    }
  }
  for (uint32_t t = 0; t < info.triangles; ++t) {
    const double c = Cross(&pts[2 * tri[3 * t]], &pts[2 * tri[3 * t + 1]], &pts[2 * tri[3 * t + 2]]);
    EXPECT_TRUE(!full || c > 0.0) << "triangle " << t << " is not wound counter-clockwise";
    area += c;
  }
  info.hull = static_cast<uint32_t>(hull_next.size());
  uint32_t v = hull_next.begin()->first, steps = 0;
  do {
    v = hull_next.count(v) ? hull_next[v] : kNone;
  } while (v != hull_next.begin()->first && ++steps <= info.hull);
  EXPECT_EQ(steps + 1, info.hull) << "hull edges do not form one ring";
  std::vector<uint32_t> ids;
  for (uint32_t i = 0; i < n; ++i)
    if (info.used[i]) ids.push_back(i);
  info.vertices = static_cast<uint32_t>(ids.size());
  EXPECT_EQ(info.triangles, 2 * info.vertices - 2 - info.hull);
  EXPECT_TRUE(!full || std::fabs(area - HullArea(pts, ids)) <= 1e-6 * area) << "triangles do not cover the hull";
  return info;
}

}  // namespace MeshCheck
