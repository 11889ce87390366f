#include "effects/animation/Delaunay.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "core/DebugLog.h"
#include "effects/animation/ExactPredicates.h"

namespace Korvane {

namespace {

// Points closer than this (in pixels) to a point already in the mesh are left
// out: they add nothing a warp can use and only make slivers.
constexpr double kDuplicateDistance = 0.1;
constexpr double kDuplicateDistance2 = kDuplicateDistance * kDuplicateDistance;

inline const float* Pt(const float* points, uint32_t i) { return points + 2 * static_cast<size_t>(i); }

// r lies strictly to the right of the directed line p -> q on screen, that
// is (p, q, r) is wound clockwise on screen: seen from r, the edge p -> q
// of a counter-clockwise hull faces it.
inline bool Sees(const float* r, const float* p, const float* q) { return Orient2d(r, p, q) > 0.0; }

template <class T>
inline double SquaredDistance(const T* a, const T* b) {
  const double dx = double(a[0]) - b[0], dy = double(a[1]) - b[1];
  return dx * dx + dy * dy;
}

// Squared circumradius of (a, b, c); infinite for a degenerate triple, so
// it never wins the strict comparison of the seed search.
inline double CalCircumradius(const double* a, const double* b, const double* c) {
  const double dx = b[0] - a[0], dy = b[1] - a[1];
  const double ex = c[0] - a[0], ey = c[1] - a[1];
  const double bl = dx * dx + dy * dy;
  const double cl = ex * ex + ey * ey;
  const double cross = dx * ey - dy * ex;
  if (bl == 0.0 || cl == 0.0 || cross == 0.0) return HUGE_VAL;
  const double k = 0.5 / cross;
  const double x = (ey * bl - dy * cl) * k;
  const double y = (dx * cl - ex * bl) * k;
  const double r = x * x + y * y;
  return std::isfinite(r) ? r : HUGE_VAL;
}

inline void CalCircumcenter(const double* a, const double* b, const double* c, double* center) {
  const double dx = b[0] - a[0], dy = b[1] - a[1];
  const double ex = c[0] - a[0], ey = c[1] - a[1];
  const double bl = dx * dx + dy * dy;
  const double cl = ex * ex + ey * ey;
  const double k = 0.5 / (dx * ey - dy * ex);
  center[0] = a[0] + (ey * bl - dy * cl) * k;
  center[1] = a[1] + (dx * cl - ex * bl) * k;
}

// Order-preserving integer key of a non-negative distance.
inline uint32_t DistanceKey(float d) {
  if (!(d >= 0.0f)) return 0xFFFFFFFFu;
  uint32_t bits;
  std::memcpy(&bits, &d, sizeof(bits));
  return bits;
}

}  // namespace

uint32_t Delaunay::HashKey(const float* p) const {
  // Only roughly needed, so in float, on offsets scaled to the box's size.
  const float dx = static_cast<float>((p[0] - seed_center[0]) * m_inv_extent);
  const float dy = static_cast<float>((p[1] - seed_center[1]) * m_inv_extent);
  const float a = dx / (std::fabs(dx) + std::fabs(dy));
  const float angle = dy > 0.0f ? 3.0f - a : 1.0f + a;  // pseudo-angle in [0, 4)
  const float k = std::floor(angle * 0.25f * static_cast<float>(hash_size));
  // The centre itself (0 / 0) gives NaN; it goes to bucket 0.
  if (!(k >= 0.0f)) return 0;
  return k < static_cast<float>(hash_size) ? static_cast<uint32_t>(k) : 0;
}

int32_t Delaunay::SortPointsByDist() {
  const uint32_t n = point_count;
  sorted_ids.resize(n);
  m_sort_keys.resize(n);
  // Squared distances are scaled to the box's size before they become float
  // keys, so huge coordinates do not overflow them.
  const float* pts = points;
  for (uint32_t i = 0; i < n; ++i) {
    const double dx = (static_cast<double>(pts[2 * static_cast<size_t>(i)]) - m_origin[0] - seed_center[0]) * m_inv_extent;
    const double dy = (static_cast<double>(pts[2 * static_cast<size_t>(i) + 1]) - m_origin[1] - seed_center[1]) * m_inv_extent;
    m_sort_keys[i] = (static_cast<uint64_t>(DistanceKey(static_cast<float>(dx * dx + dy * dy))) << 32) | i;
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

  // Equal keys are ordered by x, then y (then index, for exact duplicates).
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
  for (uint32_t v : {seed_tri_p0, seed_tri_p1, seed_tri_p2}) hull_hash[HashKey(Pt(m_geom, v))] = v;
  hull_tri[seed_tri_p0] = 0;
  hull_tri[seed_tri_p1] = 1;
  hull_tri[seed_tri_p2] = 2;
  return S_OK;
}

int32_t Delaunay::FindFrontier(uint32_t add_point, uint32_t& start_p, uint32_t& prev_p, uint32_t& next_p) {
  const float* p = Pt(m_geom, add_point);
  const uint32_t key = HashKey(p);
  m_last_key = key;
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
  while (!Sees(p, Pt(m_geom, e), Pt(m_geom, q))) {
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
  // With exact circle tests every flip strictly improves the mesh, so the
  // loop ends.
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

    if (!(InCircle2d(Pt(m_geom, p0), Pt(m_geom, pr), Pt(m_geom, pl), Pt(m_geom, p1)) < 0.0)) {
      if (i == 0) break;
      a = edge_stack[--i];
      continue;
    }

    triangles[a] = p1;
    triangles[b] = p0;
    const uint32_t hbl = halfedges[bl];
    // A hull edge that moves from slot bl to slot a: the hull vertex it
    // starts at is p1, so its record is repaired in constant time. When the
    // record names another slot, it belongs to an edge of the point being
    // inserted and is written once that point's walk is done.
    if (hbl == INVALID && hull_tri[p1] == bl) hull_tri[p1] = a;
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

bool Delaunay::NearAcceptedPoint(const float* p, uint32_t e, uint32_t q) const {
  // The nearest point already in the mesh is almost always a vertex of the
  // hull edge the new point sees or the vertex across that edge; checking
  // those keeps the test O(1).
  const uint32_t h = hull_tri[e];
  const uint32_t across = triangles[h - h % 3 + (h + 2) % 3];
  for (uint32_t v : {e, q, across}) {
    if (SquaredDistance(p, Pt(m_geom, v)) <= kDuplicateDistance2) return true;
  }
  return false;
}

void Delaunay::WorkPoint(uint32_t i, double* out) const {
  out[0] = points[2 * static_cast<size_t>(i)] - m_origin[0];
  out[1] = points[2 * static_cast<size_t>(i) + 1] - m_origin[1];
}

void Delaunay::PlaceOrigin(float min_x, float min_y, float max_x, float max_y) {
  // The working coordinates are moved to the bounding box's lower corner
  // when every such move is exact in float, which keeps them small for the
  // hash and the sort; otherwise they stay as given. The predicates work in
  // double on them and decide for the caller's own points either way.
  m_origin[0] = min_x;
  m_origin[1] = min_y;
  for (size_t i = 0; i < 2 * static_cast<size_t>(point_count); ++i) {
    double x, y;
    Exact::TwoDiff(points[i], m_origin[i & 1], x, y);
    if (y != 0.0 || static_cast<double>(static_cast<float>(x)) != x) {
      m_origin[0] = m_origin[1] = 0.0;
      break;
    }
  }
  const double extent = std::max({static_cast<double>(max_x) - min_x, static_cast<double>(max_y) - min_y, 1.0});
  m_inv_extent = 1.0 / extent;
}

int32_t Delaunay::FindSeed(float cx, float cy, uint32_t seed[3]) {
  // The point nearest the box centre, its nearest neighbour beyond the
  // duplicate distance, and the point that makes the smallest circumcircle
  // with those two without being collinear with them.
  const uint32_t n = point_count;
  uint32_t i0 = 0, i1 = INVALID, i2 = INVALID;
  float best = std::numeric_limits<float>::infinity();
  for (uint32_t i = 0; i < n; ++i) {
    const float* p = Pt(points, i);
    const float dx = cx - p[0], dy = cy - p[1];
    const float d = dx * dx + dy * dy;
    if (d < best) {
      i0 = i;
      best = d;
    }
  }
  double p0[2], p1[2], p2[2], p[2];
  WorkPoint(i0, p0);
  double best_d = HUGE_VAL;
  for (uint32_t i = 0; i < n; ++i) {
    if (i == i0) continue;
    WorkPoint(i, p);
    const double d = SquaredDistance(p0, p);
    if (d < best_d && d > kDuplicateDistance2) {
      i1 = i;
      best_d = d;
    }
  }
  if (i1 == INVALID) return E_INVALIDARG;
  WorkPoint(i1, p1);
  auto usable = [&](uint32_t i, const double* q) {
    return i != i0 && i != i1 && SquaredDistance(q, p0) > kDuplicateDistance2 &&
           SquaredDistance(q, p1) > kDuplicateDistance2 && Orient2d(p0, p1, q) != 0.0;
  };
  double min_radius = HUGE_VAL;
  for (uint32_t i = 0; i < n; ++i) {
    WorkPoint(i, p);
    const double r = CalCircumradius(p0, p1, p);
    if (r < min_radius && usable(i, p)) {
      i2 = i;
      min_radius = r;
    }
  }
  // Rounding can hide the only non-collinear point behind an infinite
  // radius; any point off the seed line will do then.
  for (uint32_t i = 0; i < n && i2 == INVALID; ++i) {
    WorkPoint(i, p);
    if (usable(i, p)) i2 = i;
  }
  if (i2 == INVALID) return E_INVALIDARG;
  WorkPoint(i2, p2);
  // Counter-clockwise on screen is clockwise with y up.
  // The centre comes from the points as found, before the swap.
  if (Orient2d(p0, p1, p2) > 0.0) std::swap(i1, i2);
  seed[0] = i0;
  seed[1] = i1;
  seed[2] = i2;
  CalCircumcenter(p0, p1, p2, seed_center);
  if (!std::isfinite(seed_center[0]) || !std::isfinite(seed_center[1])) {
    // A nearly flat seed: any centre inside the hull orders the points well enough.
    seed_center[0] = (p0[0] + p1[0] + p2[0]) / 3.0;
    seed_center[1] = (p0[1] + p1[1] + p2[1]) / 3.0;
  }
  return S_OK;
}

void Delaunay::RankPoints(const uint32_t seed[3], uint32_t ranked[3]) {
  // From here on a point is named by its rank in the insertion order, and its
  // coordinates are reordered to match: the hull front and the triangles
  // next to it then involve recent ranks only, which keeps the working set in
  // cache. Triangles are renamed to the caller's indices at the end.
  m_sorted_coords.resize(2 * static_cast<size_t>(point_count));
  for (uint32_t k = 0; k < point_count; ++k) {
    const uint32_t id = sorted_ids[k];
    double q[2];
    WorkPoint(id, q);
    m_sorted_coords[2 * static_cast<size_t>(k)] = static_cast<float>(q[0]);
    m_sorted_coords[2 * static_cast<size_t>(k) + 1] = static_cast<float>(q[1]);
    for (int s = 0; s < 3; ++s) {
      if (id == seed[s]) ranked[s] = k;
    }
  }
  m_geom = m_sorted_coords.data();
}

void Delaunay::AddPoint(uint32_t i, uint32_t e, uint32_t next_p) {
  const float* p = Pt(m_geom, i);
  // The first triangle, on the visible edge that was found.
  uint32_t t = AddTriangle(e, i, next_p, INVALID, INVALID, hull_tri[e]);
  hull_tri[i] = Legalize(t + 2);
  hull_tri[e] = t;

  // Forward along the hull while edges face the point. The walk stops short
  // of e so the hull always keeps e, the new point and n.
  uint32_t n_v = next_p;
  for (;;) {
    const uint32_t r = hull_next[n_v];
    if (r == e || !Sees(p, Pt(m_geom, n_v), Pt(m_geom, r))) break;
    t = AddTriangle(n_v, i, r, hull_tri[i], INVALID, hull_tri[n_v]);
    hull_tri[i] = Legalize(t + 2);
    hull_next[n_v] = n_v;  // removed from the hull
    n_v = r;
  }

  // Backward, the same; it stops short of n.
  for (;;) {
    const uint32_t r = hull_prev[e];
    if (r == n_v || !Sees(p, Pt(m_geom, r), Pt(m_geom, e))) break;
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
  hull_hash[m_last_key] = i;
  hull_hash[HashKey(Pt(m_geom, e))] = e;
}

int32_t Delaunay::Build(float min_x, float min_y, float max_x, float max_y) {
  int32_t hr = S_OK;
  PlaceOrigin(min_x, min_y, max_x, max_y);
  uint32_t seed[3];
  if ((hr = FindSeed((min_x + max_x) * 0.5f, (min_y + max_y) * 0.5f, seed)) < 0) return hr;
  hull_start = seed[0];
  if (KORVANE_FAILED(SortPointsByDist())) return hr;

  uint32_t ranked[3] = {INVALID, INVALID, INVALID};
  RankPoints(seed, ranked);
  const uint32_t seed_tri_p0 = ranked[0], seed_tri_p1 = ranked[1], seed_tri_p2 = ranked[2];
  if (KORVANE_FAILED(InitHull(seed_tri_p0, seed_tri_p1, seed_tri_p2))) return hr;
  AddTriangle(seed_tri_p0, seed_tri_p1, seed_tri_p2, INVALID, INVALID, INVALID);

  const float* prev = nullptr;
  for (uint32_t i = 0; i < point_count; ++i) {
    const float* p = Pt(m_geom, i);
    if (i == seed_tri_p0 || i == seed_tri_p1 || i == seed_tri_p2) continue;
    if (prev && SquaredDistance(p, prev) <= kDuplicateDistance2) continue;
    uint32_t add_point = i, start_p = INVALID, prev_p = INVALID, next_p = INVALID;
    if (KORVANE_FAILED(FindFrontier(add_point, start_p, prev_p, next_p))) return hr;
    if (prev_p == INVALID) continue;  // on or inside the hull: only ties in the order allow it
    if (NearAcceptedPoint(p, prev_p, next_p)) continue;
    prev = p;
    AddPoint(i, prev_p, next_p);
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
  m_sorted_coords.clear();
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
