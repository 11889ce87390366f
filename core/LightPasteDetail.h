// Shared by the plain, SSE4.1 and AVX2 forms of the light pastes: the checks
// and the walk over a shape's rows, with the per-row work supplied by each
// form.
#pragma once

#include <cstdint>

#include "core/LightPaste.h"

namespace Korvane {
namespace lightpaste_detail {

// intensity = trunc((B + G + R) x 0.333) is exactly (sum x kIntensityMul) >> 16
// for every sum 0..765, which the SIMD form computes with one 16-bit multiply.
constexpr int32_t kIntensityMul = 21824;

// Adds one row of `count` shape pixels to the light map, with the channel
// factors c[0..2] (B, G, R, each 0..255) and the paste mode.
using PasteRowFn = void (*)(const uint8_t* shape, uint8_t* light, int32_t count, const int32_t* c, int32_t mode);
// out = (wa x a + wb x b + 128) >> 8 per byte, wa + wb = 256, for `count` pixels.
using MixRowFn = void (*)(const uint8_t* a, const uint8_t* b, int32_t wa, int32_t wb, uint8_t* out, int32_t count);

int32_t RunPasteLight(const LightShape& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                      const Rect& shape_roi, PasteRowFn paste);
int32_t RunBilinearPasteLight(LightShape& shape, SmartBuffer& light, PointF pt, const LightPasteArgs& args,
                              const Rect& shape_roi, PasteRowFn paste, MixRowFn mix);

// The plain rows, also used by the SIMD forms for the tails.
void PasteRowPlain(const uint8_t* shape, uint8_t* light, int32_t count, const int32_t* c, int32_t mode);
void MixRowPlain(const uint8_t* a, const uint8_t* b, int32_t wa, int32_t wb, uint8_t* out, int32_t count);
// The SSE4.1 rows (built with the SSE4.1 forms), which finish the AVX2 rows.
void PasteRowSse(const uint8_t* shape, uint8_t* light, int32_t count, const int32_t* c, int32_t mode);
void MixRowSse(const uint8_t* a, const uint8_t* b, int32_t wa, int32_t wb, uint8_t* out, int32_t count);

// One row of the light-map add: out = min(255, base + light) for B, G, R
// (base + table[light] when a table is given), base's alpha.
using AddRowFn = void (*)(const uint8_t* base, const uint8_t* light, uint8_t* out, int32_t count,
                          const uint8_t* table);
void AddRowPlain(const uint8_t* base, const uint8_t* light, uint8_t* out, int32_t count, const uint8_t* table);
void AddRowSse(const uint8_t* base, const uint8_t* light, uint8_t* out, int32_t count, const uint8_t* table);
// The strength of a table, in [0, 1] (NaN counts as 0), so no product leaves
// the int range.
inline float ClampStrength(float s) { return s > 0.0f ? (s < 1.0f ? s : 1.0f) : 0.0f; }
// Checks the images and the band, then runs `row` over the band's rows.
int32_t RunImageAddLightMap(const LightMapAddParam& p, const Rect& band, AddRowFn row);

}  // namespace lightpaste_detail
}  // namespace Korvane
