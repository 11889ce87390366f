// What both forms of the ray smear share: the per-row scale and the checks.
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

inline int32_t CheckSmear(const SmearRowsParam& p) {
  const auto there = [](const RayRows* r) { return r && r->pixels && r->spans && r->lines; };
  if (!there(p.src) || !there(p.dst) || !p.row_gain) return E_POINTER;
  if (p.length < 1 || p.length > kMaxRayLength) return E_INVALIDARG;
  return S_OK;
}

}  // namespace light_rays_detail
}  // namespace Korvane
