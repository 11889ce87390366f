// The exact orientation test the mesh checks rely on (no test framework, so
// the fuzz targets use it too).
#pragma once

#include <vector>

namespace MeshCheck {

// Twice the signed area, > 0 for counter-clockwise on screen, accurate to the
// last bit whatever the coordinates: the cross product expands into six
// products of two floats, each exact in double, summed without rounding into
// non-overlapping parts (largest last).
inline double Cross(const float* a, const float* b, const float* c) {
  const double terms[6] = {double(b[1]) * c[0], -double(a[1]) * c[0], double(a[1]) * b[0],
                           -double(b[0]) * c[1], double(a[0]) * c[1], -double(a[0]) * b[1]};
  std::vector<double> parts;
  for (double t : terms) {
    std::vector<double> next;
    double q = t;
    for (double part : parts) {
      const double s = q + part, bv = s - q, err = (q - (s - bv)) + (part - bv);
      if (err != 0) next.push_back(err);
      q = s;
    }
    next.push_back(q);
    parts.swap(next);
  }
  double sum = 0;
  for (double part : parts) sum += part;
  return sum;
}

}  // namespace MeshCheck
