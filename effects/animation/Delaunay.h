// Sweep-hull Delaunay triangulation: points are added in order of distance
// from the circumcentre of a seed triangle, each one joined to the part of the
// convex hull it can see, and new edges made locally Delaunay by edge flips.
// Orientation and in-circle signs are exact for any finite input, so every
// triangle is wound counter-clockwise on screen with a non-zero area; points
// within 0.1 pixel of one already in the mesh are left out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "effects/animation/DelaunayTriangle.h"

namespace Korvane {

class Delaunay final : public DelaunayTriangle {
 public:
  static constexpr uint32_t INVALID = 0xFFFFFFFFu;
  // Largest point count whose half-edge indices still fit in 32 bits.
  static constexpr uint32_t kMaxPoints = 0x2AAAAAA0u;

  Delaunay() = default;
  ~Delaunay() override = default;

  using DelaunayTriangle::Triangulate;
  int32_t Triangulate(const float* points, uint32_t count) override;
  uint32_t GetTriangleCount() const override;
  int32_t GetTriangles(uint32_t* triangles, int32_t capacity) const override;
  int32_t Reset() override;

  // Direct read access for callers inside the library (3 indices a triangle,
  // and the opposite half-edge of each, INVALID on the hull).
  const uint32_t* TriangleData() const { return triangles.data(); }
  const uint32_t* HalfedgeData() const { return halfedges.data(); }

 private:
  int32_t Build(float min_x, float min_y, float max_x, float max_y);
  // Build's steps: the working origin, the seed triangle (wound
  // counter-clockwise on screen, E_INVALIDARG when there is none), the
  // coordinates reordered by insertion rank, and one point joined to the
  // hull edges it sees from edge (e, next_p).
  void PlaceOrigin(float min_x, float min_y, float max_x, float max_y);
  int32_t FindSeed(float cx, float cy, uint32_t seed[3]);
  void RankPoints(const uint32_t seed[3], uint32_t ranked[3]);
  void AddPoint(uint32_t i, uint32_t e, uint32_t next_p);
  // Point i of the caller's array in working coordinates.
  void WorkPoint(uint32_t i, double* out) const;
  int32_t SortPointsByDist();
  int32_t InitHull(uint32_t seed_tri_p0, uint32_t seed_tri_p1, uint32_t seed_tri_p2);
  int32_t FindFrontier(uint32_t add_point, uint32_t& start_p, uint32_t& prev_p, uint32_t& next_p);
  uint32_t Legalize(uint32_t a);
  uint32_t AddTriangle(uint32_t i0, uint32_t i1, uint32_t i2, uint32_t a, uint32_t b, uint32_t c);
  uint32_t HashKey(const float* p) const;
  bool NearAcceptedPoint(const float* p, uint32_t e, uint32_t q) const;
  void Link(uint32_t a, uint32_t b) {
    halfedges[a] = b;
    if (b != INVALID) halfedges[b] = a;
  }

  // While a run is in progress the hull vectors, the hash and the triangles
  // name points by insertion rank; triangles are renamed to the caller's
  // indices when the run ends.
  std::vector<uint32_t> hull_next;   // next hull vertex; a removed vertex points to itself
  std::vector<uint32_t> hull_prev;   // previous hull vertex
  std::vector<uint32_t> hull_tri;    // half-edge of the hull triangle starting at each hull vertex
  std::vector<uint32_t> halfedges;   // opposite half-edge, INVALID on the hull
  std::vector<uint32_t> triangles;   // point indices, 3 per triangle
  std::vector<uint32_t> hull_hash;   // angular buckets of hull vertices
  std::vector<uint32_t> sorted_ids;  // insertion order
  std::vector<uint32_t> edge_stack;  // pending edges of Legalize
  const float* points = nullptr;     // caller's x, y pairs, only during Triangulate
  uint32_t point_count = 0;
  uint32_t triangle_index_count = 0;
  uint32_t hash_size = 0;
  uint32_t hull_start = 0;
  double seed_center[2] = {0.0, 0.0};

  // Sort scratch: (distance key, point index) pairs and the radix passes' copy.
  std::vector<uint64_t> m_sort_keys;
  std::vector<uint64_t> m_sort_tmp;
  // The points less m_origin (the bounding box's corner when that is exact
  // in float, else 0), in insertion order: during the insertion phase every
  // vertex index (in the hull ring, the hash and the triangles) is a
  // position in it.
  std::vector<float> m_sorted_coords;
  double m_origin[2] = {0.0, 0.0};
  const float* m_geom = nullptr;
  double m_inv_extent = 1.0;  // 1 / the bounding box's larger side
  uint32_t m_last_key = 0;    // hash key of the point FindFrontier placed last
};

}  // namespace Korvane
