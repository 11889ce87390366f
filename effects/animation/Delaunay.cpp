#include "effects/animation/Delaunay.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "core/DebugLog.h"

namespace Korvane {

namespace {

// Squared pixels. A point must see a hull edge by more than this to be added
// at all, so points nearly on the hull (or nearly on top of a hull vertex) are
// left out instead of making slivers. Once a point is in, the walks along the
// hull join every edge it sees by sign: an edge left hidden within the
// tolerance would make the hull ring bend inwards there, and on large dense
// sets later points then see such bends from inside the mesh and fold the
// ring over itself, giving overlapping triangles. The triangle added instead
// is thin but correctly wound, and the ring stays convex.
constexpr float kOrientTolerance = 0.1f;
constexpr double kDuplicateDistance = 0.0001;

inline const float* Pt(const float* points, uint32_t i) { return points + 2 * static_cast<size_t>(i); }

// Twice the signed area, positive for a triangle wound counter-clockwise on
// screen (y down).
inline float Orient(const float* p, const float* q, const float* r) {
  return (q[1] - p[1]) * (r[0] - q[0]) - (q[0] - p[0]) * (r[1] - q[1]);
}

// True when p lies strictly inside the circumcircle of the positively wound
// triangle (a, b, c). NaN from overflowing coordinates answers false.
inline bool InCircle(const float* a, const float* b, const float* c, const float* p) {
  const float dx = a[0] - p[0], dy = a[1] - p[1];
  const float ex = b[0] - p[0], ey = b[1] - p[1];
  const float fx = c[0] - p[0], fy = c[1] - p[1];
  const float ap = dx * dx + dy * dy;
  const float bp = ex * ex + ey * ey;
  const float cp = fx * fx + fy * fy;
  return ap * (ex * fy - fx * ey) - bp * (dx * fy - fx * dy) + cp * (dx * ey - ex * dy) < 0.0f;
}

// Squared circumradius; FLT_MAX for a repeated point. A collinear triple
// gives FLT_MAX too (the quotient would be infinite), so it never wins the
// strict comparison of the seed search.
inline float CalCircumradius(const float* a, const float* b, const float* c) {
  const float dx = b[0] - a[0], dy = b[1] - a[1];
  const float ex = c[0] - a[0], ey = c[1] - a[1];
  const float bl = dx * dx + dy * dy;
  const float cl = ex * ex + ey * ey;
  const float cross = dx * ey - dy * ex;
  if (bl == 0.0f || cl == 0.0f || cross == 0.0f) return FLT_MAX;
  const float k = 0.5f / cross;
  if (k == 0.0f) return FLT_MAX;
  const float x = (ey * bl - dy * cl) * k;
  const float y = (dx * cl - ex * bl) * k;
  return x * x + y * y;
}

inline void CalCircumcenter(const float* a, const float* b, const float* c, float* center) {
  const float dx = b[0] - a[0], dy = b[1] - a[1];
  const float ex = c[0] - a[0], ey = c[1] - a[1];
  const float bl = dx * dx + dy * dy;
  const float cl = ex * ex + ey * ey;
  const float k = 0.5f / (dx * ey - dy * ex);
  center[0] = a[0] + (ey * bl - dy * cl) * k;
  center[1] = a[1] + (dx * cl - ex * bl) * k;
}

// Within the near-duplicate distance in both coordinates (compared in double).
inline bool NearDuplicate(const float* a, const float* b) {
  return std::fabs(static_cast<double>(a[0]) - b[0]) <= kDuplicateDistance &&
         std::fabs(static_cast<double>(a[1]) - b[1]) <= kDuplicateDistance;
}

inline float SquaredDistance(float ax, float ay, float bx, float by) {
  const float dx = ax - bx, dy = ay - by;
  return dx * dx + dy * dy;
}

// Order-preserving integer key of a non-negative distance; NaN (from
// overflowing coordinates) sorts last.
inline uint32_t DistanceKey(float d) {
  if (std::isnan(d)) return 0xFFFFFFFFu;
  uint32_t bits;
  std::memcpy(&bits, &d, sizeof(bits));
  return bits;
}

}  // namespace

uint32_t Delaunay::HashKey(float x, float y) const {
  const float dx = x - seed_center[0];
  const float dy = y - seed_center[1];
  const float a = dx / (std::fabs(dx) + std::fabs(dy));
  const float angle = dy > 0.0f ? 3.0f - a : 1.0f + a;  // pseudo-angle in [0, 4)
  const float k = std::floor(angle * 0.25f * static_cast<float>(hash_size));
  // The point at the centre itself (0 / 0) and overflowing offsets give NaN;
  // they go to bucket 0 rather than to an undefined conversion.
  if (!(k >= 0.0f)) return 0;
  if (k < static_cast<float>(hash_size)) return static_cast<uint32_t>(k);
  const float wrapped = std::fmod(k, static_cast<float>(hash_size));
  return (wrapped >= 0.0f && wrapped < static_cast<float>(hash_size)) ? static_cast<uint32_t>(wrapped) : 0;
}

int32_t Delaunay::SortPointsByDist() {
  const uint32_t n = point_count;
  sorted_ids.resize(n);
  m_sort_keys.resize(n);
  for (uint32_t i = 0; i < n; ++i) {
    const float* p = Pt(points, i);
    const uint32_t key = DistanceKey(SquaredDistance(p[0], p[1], seed_center[0], seed_center[1]));
    m_sort_keys[i] = (static_cast<uint64_t>(key) << 32) | i;
  }

  // The keys carry the index in their low half, so sorting the 64-bit values
  // orders by distance and then by index. Large sets use an LSD radix sort on
  // the distance half (stable, so the index order within equal distances is
  // kept); small ones a comparison sort.
  if (n < 512) {
    std::sort(m_sort_keys.begin(), m_sort_keys.end());
  } else {
    m_sort_tmp.resize(n);
    uint64_t* src = m_sort_keys.data();
    uint64_t* dst = m_sort_tmp.data();
    static const int kShift[3] = {32, 43, 54};
    static const int kBits[3] = {11, 11, 10};
    for (int pass = 0; pass < 3; ++pass) {
      const int shift = kShift[pass];
      const uint32_t mask = (1u << kBits[pass]) - 1;
      uint32_t count[2048] = {};
      for (uint32_t i = 0; i < n; ++i) ++count[(src[i] >> shift) & mask];
      if (count[(src[0] >> shift) & mask] == n) continue;  // every key shares this digit
      uint32_t sum = 0;
      for (uint32_t d = 0; d <= mask; ++d) {
        const uint32_t c = count[d];
        count[d] = sum;
        sum += c;
      }
      for (uint32_t i = 0; i < n; ++i) dst[count[(src[i] >> shift) & mask]++] = src[i];
      std::swap(src, dst);
    }
    if (src != m_sort_keys.data()) m_sort_keys.swap(m_sort_tmp);
  }

  // Equal distances are ordered by x, then y (then index, for exact
  // duplicates). Such runs are short; the coordinates are finite here.
  const float* pts = points;
  auto by_position = [pts](uint64_t a, uint64_t b) {
    const float* pa = Pt(pts, static_cast<uint32_t>(a));
    const float* pb = Pt(pts, static_cast<uint32_t>(b));
    if (pa[0] != pb[0]) return pa[0] < pb[0];
    if (pa[1] != pb[1]) return pa[1] < pb[1];
    return static_cast<uint32_t>(a) < static_cast<uint32_t>(b);
  };
  uint32_t run = 0;
  for (uint32_t i = 1; i <= n; ++i) {
    if (i == n || (m_sort_keys[i] >> 32) != (m_sort_keys[run] >> 32)) {
      if (i - run > 1) std::sort(m_sort_keys.begin() + run, m_sort_keys.begin() + i, by_position);
      run = i;
    }
  }
  for (uint32_t i = 0; i < n; ++i) sorted_ids[i] = static_cast<uint32_t>(m_sort_keys[i]);
  return S_OK;
}

int32_t Delaunay::InitHull(uint32_t seed_tri_p0, uint32_t seed_tri_p1, uint32_t seed_tri_p2) {
  const uint32_t n = point_count;
  hull_next.resize(n);
  hull_prev.resize(n);
  hull_tri.resize(n);
  hull_hash.assign(hash_size, INVALID);
  // A triangulation of n points has at most 2n - 5 triangles (n > 3).
  const size_t slots = n > 3 ? 3 * (2 * static_cast<size_t>(n) - 5) : 3;
  triangles.resize(slots);
  halfedges.resize(slots);

  hull_next[seed_tri_p0] = seed_tri_p1;
  hull_next[seed_tri_p1] = seed_tri_p2;
  hull_next[seed_tri_p2] = seed_tri_p0;
  hull_prev[seed_tri_p2] = seed_tri_p1;
  hull_prev[seed_tri_p0] = seed_tri_p2;
  hull_prev[seed_tri_p1] = seed_tri_p0;
  for (uint32_t v : {seed_tri_p0, seed_tri_p1, seed_tri_p2}) {
    const float* p = Pt(m_geom, v);
    hull_hash[HashKey(p[0], p[1])] = v;
  }
  hull_tri[seed_tri_p0] = 0;
  hull_tri[seed_tri_p1] = 1;
  hull_tri[seed_tri_p2] = 2;
  return S_OK;
}

int32_t Delaunay::FindFrontier(uint32_t add_point, uint32_t& start_p, uint32_t& prev_p, uint32_t& next_p) {
  const float* p = Pt(m_geom, add_point);
  const uint32_t key = HashKey(p[0], p[1]);
  uint32_t start = INVALID;
  for (uint32_t j = 0; j < hash_size; ++j) {
    const uint32_t v = hull_hash[(key + j) % hash_size];
    if (v != INVALID && hull_next[v] != v) {
      start = v;
      break;
    }
  }
  if (start == INVALID) start = hull_start;  // the last vertex added is always hashed; kept as a fallback

  start = hull_prev[start];
  uint32_t e = start;
  uint32_t q = hull_next[e];
  // The ring never holds more than point_count vertices; the bound only
  // guards against a damaged ring turning into an endless walk.
  uint32_t steps = 0;
  while (!(Orient(p, Pt(m_geom, e), Pt(m_geom, q)) < -kOrientTolerance)) {
    e = q;
    if (e == start || ++steps > point_count) {
      e = INVALID;
      break;
    }
    q = hull_next[e];
  }
  start_p = start;
  prev_p = e;
  next_p = e == INVALID ? INVALID : q;
  return S_OK;
}

uint32_t Delaunay::AddTriangle(uint32_t i0, uint32_t i1, uint32_t i2, uint32_t a, uint32_t b, uint32_t c) {
  const uint32_t t = triangle_index_count;
  if (static_cast<size_t>(t) + 3 > triangles.size()) {
    // Not reached while the hull keeps at least three vertices (at most
    // 2n - 5 triangles), but a write must never leave the vectors.
    const size_t grown = triangles.size() + triangles.size() / 2 + 3;
    triangles.resize(grown);
    halfedges.resize(grown);
  }
  triangles[t] = i0;
  triangles[t + 1] = i1;
  triangles[t + 2] = i2;
  Link(t, a);
  Link(t + 1, b);
  Link(t + 2, c);
  triangle_index_count = t + 3;
  return t;
}

uint32_t Delaunay::Legalize(uint32_t a) {
  uint32_t i = 0;
  uint32_t ar = 0;
  // Every flip joins the point being inserted to one more vertex, and edges
  // at that point are never flipped back, so the loop ends after at most
  // point_count flips even when rounding makes the circle test inconsistent.
  for (;;) {
    const uint32_t b = halfedges[a];
    const uint32_t a0 = a - a % 3;
    ar = a0 + (a + 2) % 3;

    if (b == INVALID) {
      if (i == 0) break;
      a = edge_stack[--i];
      continue;
    }

    const uint32_t b0 = b - b % 3;
    const uint32_t al = a0 + (a + 1) % 3;
    const uint32_t bl = b0 + (b + 2) % 3;
    const uint32_t p0 = triangles[ar];
    const uint32_t pr = triangles[a];
    const uint32_t pl = triangles[al];
    const uint32_t p1 = triangles[bl];

    if (!InCircle(Pt(m_geom, p0), Pt(m_geom, pr), Pt(m_geom, pl), Pt(m_geom, p1))) {
      if (i == 0) break;
      a = edge_stack[--i];
      continue;
    }

    triangles[a] = p1;
    triangles[b] = p0;
    const uint32_t hbl = halfedges[bl];
    if (hbl == INVALID && hull_tri[p1] == bl) {
      hull_tri[p1] = a;  // the hull edge bl starts at p1, so p1 holds its record
    } else if (hbl == INVALID) {
      // The flipped edge was on the hull: move the hull vertex's record from
      // bl to a. Walking the previous-links reaches every hull vertex even
      // while the current insertion has cut some out of the forward ring.
      uint32_t e = hull_start;
      for (uint32_t steps = 0; steps <= point_count; ++steps) {
        if (hull_tri[e] == bl) {
          hull_tri[e] = a;
          break;
        }
        e = hull_prev[e];
        if (e == hull_start) break;
      }
    }
    Link(a, hbl);
    Link(b, halfedges[ar]);
    Link(ar, bl);

    const uint32_t br = b0 + (b + 1) % 3;
    if (i < edge_stack.size()) {
      edge_stack[i] = br;
    } else {
      edge_stack.push_back(br);
    }
    ++i;
  }
  return ar;
}

int32_t Delaunay::Triangulate(const float* pts, uint32_t count) {
  if (!pts) return E_POINTER;
  if (count < 3 || count > kMaxPoints) return E_INVALIDARG;
  // Refuse non-finite coordinates before touching any state; the bounding
  // box comes from the same pass. The maxima start at FLT_MIN (the smallest
  // positive float), so with all-negative coordinates they stay there.
  float min_x = FLT_MAX, min_y = FLT_MAX, max_x = FLT_MIN, max_y = FLT_MIN;
  for (uint32_t i = 0; i < count; ++i) {
    const float x = pts[2 * static_cast<size_t>(i)];
    const float y = pts[2 * static_cast<size_t>(i) + 1];
    if (!std::isfinite(x) || !std::isfinite(y)) return E_INVALIDARG;
    min_x = std::min(min_x, x);
    min_y = std::min(min_y, y);
    max_x = std::max(max_x, x);
    max_y = std::max(max_y, y);
  }

  int32_t hr = S_OK;
  triangle_index_count = 0;
  edge_stack.clear();
  points = pts;
  point_count = count;
  hash_size = static_cast<uint32_t>(std::ceil(std::sqrt(static_cast<double>(count))));

  try {
    hr = Build(min_x, min_y, max_x, max_y);
  } catch (const std::bad_alloc& e) {
    DebugLog("Triangulate - %s caught!", e.what());
    hr = E_OUTOFMEMORY;
  }
  if (hr < 0) triangle_index_count = 0;  // a failed run leaves no half-built mesh
  points = nullptr;
  m_geom = nullptr;
  point_count = 0;
  return hr;
}

int32_t Delaunay::Build(float min_x, float min_y, float max_x, float max_y) {
  int32_t hr = S_OK;
  const uint32_t n = point_count;
  const float cx = (min_x + max_x) * 0.5f;
  const float cy = (min_y + max_y) * 0.5f;

  // Seed: the point nearest the box centre, its nearest distinct neighbour,
  // and the point that makes the smallest circumcircle with those two. Near-
  // duplicates of a seed point are not seeds themselves: the insertion loop
  // would drop them, and a seed edge of length 0.0001 could never be seen
  // within the orientation tolerance, leaving a notch in the hull.
  uint32_t i0 = 0, i1 = 0, i2 = INVALID;
  float best = std::numeric_limits<float>::infinity();
  for (uint32_t i = 0; i < n; ++i) {
    const float* p = Pt(points, i);
    const float d = SquaredDistance(cx, cy, p[0], p[1]);
    if (d < best) {
      i0 = i;
      best = d;
    }
  }
  const float* p0 = Pt(points, i0);
  best = std::numeric_limits<float>::infinity();
  for (uint32_t i = 0; i < n; ++i) {
    if (i == i0) continue;
    const float* p = Pt(points, i);
    const float d = SquaredDistance(p0[0], p0[1], p[0], p[1]);
    if (d < best && d > 0.0f && !NearDuplicate(p, p0)) {
      i1 = i;
      best = d;
    }
  }
  const float* p1 = Pt(points, i1);
  float min_radius = FLT_MAX;
  for (uint32_t i = 0; i < n; ++i) {
    if (i == i0 || i == i1) continue;
    const float* p = Pt(points, i);
    if (NearDuplicate(p, p0) || NearDuplicate(p, p1)) continue;
    const float r = CalCircumradius(p0, p1, p);
    if (r < min_radius) {
      i2 = i;
      min_radius = r;
    }
  }
  if (i2 == INVALID) return E_INVALIDARG;

  // A seed that is not clearly counter-clockwise is swapped. If that leaves
  // a nearly flat seed wound the wrong way, it is swapped back so the mesh is
  // built on a positive triangle; a seed flat even in float is refused.
  if (!(Orient(Pt(points, i0), Pt(points, i1), Pt(points, i2)) > kOrientTolerance)) std::swap(i1, i2);
  if (!(Orient(Pt(points, i0), Pt(points, i1), Pt(points, i2)) > 0.0f)) std::swap(i1, i2);
  if (!(Orient(Pt(points, i0), Pt(points, i1), Pt(points, i2)) > 0.0f)) return E_INVALIDARG;

  hull_start = i0;
  CalCircumcenter(Pt(points, i0), Pt(points, i1), Pt(points, i2), seed_center);
  if (!std::isfinite(seed_center[0]) || !std::isfinite(seed_center[1])) return E_INVALIDARG;

  if (KORVANE_FAILED(SortPointsByDist())) return hr;

  // From here on a point is named by its rank in the insertion order, and its
  // coordinates are copied in that order: the hull front and the triangles
  // next to it then involve recent ranks only, which keeps the working set in
  // cache. Triangles are renamed to the caller's indices at the end.
  m_coords.resize(2 * static_cast<size_t>(n));
  uint32_t seed_tri_p0 = INVALID, seed_tri_p1 = INVALID, seed_tri_p2 = INVALID;
  for (uint32_t k = 0; k < n; ++k) {
    const uint32_t id = sorted_ids[k];
    m_coords[2 * static_cast<size_t>(k)] = points[2 * static_cast<size_t>(id)];
    m_coords[2 * static_cast<size_t>(k) + 1] = points[2 * static_cast<size_t>(id) + 1];
    if (id == i0) seed_tri_p0 = k;
    if (id == i1) seed_tri_p1 = k;
    if (id == i2) seed_tri_p2 = k;
  }
  m_geom = m_coords.data();
  if (KORVANE_FAILED(InitHull(seed_tri_p0, seed_tri_p1, seed_tri_p2))) return hr;
  i0 = seed_tri_p0;
  i1 = seed_tri_p1;
  i2 = seed_tri_p2;
  AddTriangle(i0, i1, i2, INVALID, INVALID, INVALID);

  double prev_x = FLT_MAX, prev_y = FLT_MAX;
  for (uint32_t k = 0; k < n; ++k) {
    const uint32_t i = k;
    const float* p = Pt(m_geom, i);

    // Near-duplicates of the previous accepted point are dropped. Seed points
    // never become the previous point.
    if (k > 0 && std::fabs(p[0] - prev_x) <= kDuplicateDistance && std::fabs(p[1] - prev_y) <= kDuplicateDistance)
      continue;
    if (i == i0 || i == i1 || i == i2) continue;
    prev_x = p[0];
    prev_y = p[1];

    uint32_t add_point = i, start_p = INVALID, prev_p = INVALID, next_p = INVALID;
    if (KORVANE_FAILED(FindFrontier(add_point, start_p, prev_p, next_p))) return hr;
    uint32_t e = prev_p;
    if (e == INVALID) continue;  // sees no hull edge: inside, or within the tolerance

    // The first triangle, on the visible edge that was found.
    uint32_t t = AddTriangle(e, i, next_p, INVALID, INVALID, hull_tri[e]);
    hull_tri[i] = Legalize(t + 2);
    hull_tri[e] = t;

    // Forward along the hull while edges stay visible. The walk stops short
    // of e so the hull always keeps e, the new point and n.
    uint32_t n_v = next_p;
    for (;;) {
      const uint32_t r = hull_next[n_v];
      if (r == e || !(Orient(p, Pt(m_geom, n_v), Pt(m_geom, r)) < 0.0f)) break;
      t = AddTriangle(n_v, i, r, hull_tri[i], INVALID, hull_tri[n_v]);
      hull_tri[i] = Legalize(t + 2);
      hull_next[n_v] = n_v;  // removed from the hull
      n_v = r;
    }

    // Backward. When the edge found first was not the search's start, the
    // edges before it were seen as hidden within the tolerance, but may still
    // face p. The walk stops short of n for the same reason as above. n keeps
    // its old previous-link until the ring is closed below, so the hull
    // repair walk in Legalize can still reach every hull vertex.
    for (;;) {
      const uint32_t r = hull_prev[e];
      if (r == n_v || !(Orient(p, Pt(m_geom, r), Pt(m_geom, e)) < 0.0f)) break;
      t = AddTriangle(r, i, e, INVALID, hull_tri[e], hull_tri[r]);
      Legalize(t + 2);
      hull_tri[r] = t;
      hull_next[e] = e;
      e = r;
    }

    hull_start = e;
    hull_prev[i] = e;
    hull_next[e] = i;
    hull_prev[n_v] = i;
    hull_next[i] = n_v;
    hull_hash[HashKey(p[0], p[1])] = i;
    const float* pe = Pt(m_geom, e);
    hull_hash[HashKey(pe[0], pe[1])] = e;
  }

  for (uint32_t t = 0; t < triangle_index_count; ++t) triangles[t] = sorted_ids[triangles[t]];
  return S_OK;
}

uint32_t Delaunay::GetTriangleCount() const { return triangle_index_count / 3; }

int32_t Delaunay::GetTriangles(uint32_t* out, int32_t capacity) const {
  const uint32_t count = triangle_index_count / 3;
  if (capacity < 0 || static_cast<uint32_t>(capacity) < count) return E_INVALIDARG;
  if (!out) return E_POINTER;
  if (capacity == 0 || count == 0) return S_OK;
  // Only the triangles that exist are copied, whatever the capacity.
  std::memcpy(out, triangles.data(), static_cast<size_t>(count) * 3 * sizeof(uint32_t));
  return S_OK;
}

int32_t Delaunay::Reset() {
  hull_next.clear();
  hull_prev.clear();
  hull_tri.clear();
  halfedges.clear();
  triangles.clear();
  hull_hash.clear();
  sorted_ids.clear();
  edge_stack.clear();
  m_sort_keys.clear();
  m_sort_tmp.clear();
  m_coords.clear();
  points = nullptr;
  m_geom = nullptr;
  point_count = 0;
  triangle_index_count = 0;
  hash_size = 0;
  hull_start = 0;
  seed_center[0] = seed_center[1] = 0.0f;
  return S_OK;
}

}  // namespace Korvane
