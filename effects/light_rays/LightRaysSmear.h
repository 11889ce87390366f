// What the forms of the ray smear share: the per-row scale, the checks and
// the SSE4.1 walk over a stretch of a row, which the AVX2 form also uses.
#pragma once

#include <algorithm>

#include "core/ResultCode.h"
#include "effects/light_rays/LightRaysKernels.h"

namespace Korvane {
namespace light_rays_detail {

// k of the smear for a row gain (256 = 1) and length L.
inline float SmearScale(uint16_t gain, int32_t length) {
  const double weight = static_cast<double>(length) * (length + 1) / 4.0 + 1.0;
  return static_cast<float>(gain / 256.0 / weight);
}

// The running sums of one channel each (B, G, R, A) that the smear carries
// along a row: t = sum of (L - i) in[c - i], s = sum of in[c - i], i < L.
struct SmearSums {
  int32_t t[4] = {0, 0, 0, 0};
  int32_t s[4] = {0, 0, 0, 0};
};

// Columns [c0, c1) of one row smeared from `in` into `out` (both holding the
// row's columns from lo: byte 4 (c - lo) is column c) with length `len` and
// scale k, the sums carried in and out through `sums`. SSE4.1 builds only.
void SmearSpanSse(const uint8_t* in, uint8_t* out, int32_t lo, int32_t c0, int32_t c1, int32_t len, float k,
                  SmearSums& sums);

inline int32_t CheckSmear(const SmearRowsParam& p) {
  const auto there = [](const RayRows* r) { return r && r->pixels && r->spans && r->lines; };
  if (!there(p.src) || !there(p.dst) || !p.row_gain) return E_POINTER;
  if (p.length < 1 || p.length > kMaxRayLength) return E_INVALIDARG;
  return S_OK;
}

}  // namespace light_rays_detail
}  // namespace Korvane
