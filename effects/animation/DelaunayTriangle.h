// Public header: part of the installed API.
// Delaunay triangulation of 2-D points (effect type code 1). Create it with
// KorvaneEngine::CreateEffect(&p, Korvane::EFFECT_DELAUNAY_TRIANGLE).
#pragma once

#include <cstdint>

#include "core/ResultCode.h"

namespace Korvane {

// One input point in image coordinates. An array of these has the same layout
// as an array of interleaved x, y floats.
struct DelaunayPoint {
  float x;
  float y;
};

class DelaunayTriangle {
 public:
  virtual ~DelaunayTriangle() = default;

  // Triangulates `count` points given as interleaved x, y floats. The array is
  // read only during the call. Returns S_OK; E_POINTER for a null array;
  // E_INVALIDARG for fewer than 3 points (or more than about 715 million), a
  // non-finite coordinate, or points that form no triangle (all collinear or
  // coincident); E_OUTOFMEMORY when the working storage cannot be allocated. A point
  // within 0.1 pixel of one already in the mesh is left out of it.
  virtual int32_t Triangulate(const float* points, uint32_t count) = 0;

  // Number of triangles of the last triangulation: 0 after Reset or after a
  // call that found no seed triangle; a call refused for its arguments (null,
  // too few points, non-finite values) leaves the previous result in place.
  virtual uint32_t GetTriangleCount() const = 0;

  // Copies the triangles, three point indices each, in creation order into
  // `triangles`. E_INVALIDARG when `capacity` (in triangles) is below the
  // count, E_POINTER for a null array; a larger capacity copies only the
  // triangles that exist. Every triangle is wound counter-clockwise on screen
  // (y pointing down).
  virtual int32_t GetTriangles(uint32_t* triangles, int32_t capacity) const = 0;

  // Forgets the last triangulation; storage is kept for reuse. Returns S_OK.
  virtual int32_t Reset() = 0;

  // Convenience overload for arrays of DelaunayPoint.
  int32_t Triangulate(const DelaunayPoint* points, uint32_t count) {
    return Triangulate(reinterpret_cast<const float*>(points), count);
  }
};

}  // namespace Korvane
