// Point sets into the triangulation effect, through the engine. The first
// byte picks raw floats (NaN, infinities, any magnitude) or small integers
// times a power of two (duplicates, collinear and cocircular points at every
// scale). Every mesh that comes back must wind each triangle counter-
// clockwise with a non-zero area and name only points that exist.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "effects/animation/DelaunayTriangle.h"
#include "ExactCross.h"

namespace {

// Sets far larger than this only take longer per run, not new paths.
constexpr size_t kMaxPoints = 2048;

Korvane::DelaunayTriangle* Mesh() {
  return KorvaneFuzz::KeptEffect<Korvane::DelaunayTriangle>(Korvane::EFFECT_DELAUNAY_TRIANGLE);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  std::vector<float> pts;
  const uint8_t mode = data[0];
  if (mode & 1) {
    const size_t n = std::min((size - 1) / 8, kMaxPoints);
    pts.resize(2 * n);
    if (n > 0) std::memcpy(pts.data(), data + 1, n * 8);
  } else {
    // Small integers on a grid of 2^(k - 64), k from the second byte.
    const float unit = std::ldexp(1.0f, int(data[1] % 160) - 80);
    const size_t n = std::min((size - 2) / 2, kMaxPoints);
    pts.resize(2 * n);
    for (size_t i = 0; i < 2 * n; ++i) pts[i] = float(int8_t(data[2 + i])) * unit;
  }
  const uint32_t n = uint32_t(pts.size() / 2);
  const int32_t hr = Mesh()->Triangulate(pts.empty() ? nullptr : pts.data(), n);
  if (hr != S_OK) {
    if (hr != E_INVALIDARG && hr != E_POINTER) {
      std::fprintf(stderr, "unexpected code %x\n", unsigned(hr));
      std::abort();
    }
    return 0;
  }
  const uint32_t count = Mesh()->GetTriangleCount();
  if (n > 3 && count > 2 * n - 5) std::abort();
  std::vector<uint32_t> tri(3 * size_t(count) + 1, 0xDEADBEEFu);
  if (Mesh()->GetTriangles(tri.data(), int32_t(count)) != S_OK || tri.back() != 0xDEADBEEFu) std::abort();
  for (uint32_t t = 0; t < count; ++t) {
    const uint32_t* v = &tri[3 * size_t(t)];
    if (v[0] >= n || v[1] >= n || v[2] >= n) std::abort();
    if (!(MeshCheck::Cross(&pts[2 * v[0]], &pts[2 * v[1]], &pts[2 * v[2]]) > 0.0)) {
      std::fprintf(stderr, "triangle %u (%u %u %u) is flat or wound clockwise\n", t, v[0], v[1], v[2]);
      std::abort();
    }
  }
  return 0;
}
