// The per-pixel stages of the light-rays pipeline, written as functions of
// one band so the effect can run them through BandTask on its adapter.
//
// The rays are formed in a "ray space" image whose rows are straight lines
// through the half-size highlight image: for radial rays one row per tenth
// of a degree around the centre (a column per pixel of radius), for
// directional rays the rows of the image turned so the rays run along them.
// A RayLine says where a row lies in the highlight image and which of its
// columns are used. Only those columns are stored (RayRows), so a ray space
// costs what the lines crossing the image need: a thin photo's ray space is
// as thin as the photo, whatever the angle.
#pragma once

#include <cstdint>

#include <algorithm>

#include "core/ImageBuffer.h"
#include "core/ImageChecks.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// Row j of a ray-space image: column c lies at (x0 + c dx, y0 + c dy) in the
// highlight image. Columns [lo, hi) are sampled and smeared; columns at or
// beyond src_end are not sampled (they start dark and only receive light).
struct RayLine {
  float x0 = 0.0f;
  float y0 = 0.0f;
  float dx = 1.0f;
  float dy = 0.0f;
  int32_t lo = 0;
  int32_t hi = 0;
  int32_t src_end = 0;
};

// Where row j of a packed ray space lies: column c (lo <= c < hi, the
// columns of its line) is pixel col0 + c of the image.
struct RaySpan {
  int64_t col0 = 0;
  int32_t lo = 0;
  int32_t hi = 0;
};

// A ray-space image kept row by row: row j holds its columns [lo, hi) of
// lines[j], the rows packed one after another. Columns outside a row's
// range read as black.
struct RayRows {
  uint32_t* pixels = nullptr;      // BGRA pixels of all rows
  const RaySpan* spans = nullptr;  // one per row
  const RayLine* lines = nullptr;  // one per row

  // Row j, from its column lo.
  uint32_t* Row(int32_t j) const { return pixels + (spans[j].col0 + spans[j].lo); }
  // Pixel (u, v): its four bytes, or black when the row does not hold u.
  const uint8_t* At(int32_t u, int32_t v) const {
    static const uint32_t kBlack = 0;
    const RaySpan& s = spans[v];
    return reinterpret_cast<const uint8_t*>(u >= s.lo && u < s.hi ? pixels + (s.col0 + u) : &kBlack);
  }
};

// Columns of the line that fall inside the rectangle (-margin, w - 1 +
// margin) x (-margin, h - 1 + margin), as [lo, hi) within [0, cols); an empty
// range is lo = hi = 0.
void CalLineRange(RayLine& line, int32_t w, int32_t h, float margin, int32_t cols);

// "HighLightDetect": L = (max + min) >> 1 of B, G, R; below the threshold the
// colour becomes 0, otherwise each channel becomes v * mask / 255. Alpha is
// not written.
struct HighLightParam {
  const SmartBuffer* src = nullptr;   // BGRA
  const SmartBuffer* mask = nullptr;  // GRAY8, same size
  SmartBuffer* dst = nullptr;         // BGRA, same size
  float threshold = 0.0f;
};
int32_t HighLightDetect(const HighLightParam& p, const Rect& band);
int32_t HighLightDetect_SSE(const HighLightParam& p, const Rect& band);

// The ray-space image's rows from the highlight image: bilinear samples,
// zero outside the image (so the rays fade in at its edges). Band rows are
// ray-space rows. "CarteToPolarTransform" and "ImageRotateTransform".
struct SampleRowsParam {
  const SmartBuffer* src = nullptr;  // BGRA highlight image
  const RayRows* dst = nullptr;      // the ray-space image, its lines one per row
};
int32_t SampleRows(const SampleRowsParam& p, const Rect& band);

// "LightRayHalfBlurH" / "LightRayBlurH": light moves along each row towards
// higher columns only. Column c receives t = sum_{k=0}^{L-1} (L - k) in[c - k]
// (exact integers) scaled by k = gain / 256 / (L (L + 1) / 4 + 1): twice a
// weighted average in which light fades linearly over L columns, weighted by
// the row's gain (256 = 1), the mask blending that cuts the smear into
// separate beams. Out is (int)(float(t) * k + 0.5f), capped at 255, in both
// forms. L is at most kMaxRayLength, which keeps t below 2^31.
constexpr int32_t kMaxRayLength = 4096;
struct SmearRowsParam {
  const RayRows* src = nullptr;
  const RayRows* dst = nullptr;        // the same lines as src
  const uint16_t* row_gain = nullptr;  // one per row, 0..256
  int32_t length = 1;                  // L, 1..kMaxRayLength
};
int32_t SmearRows(const SmearRowsParam& p, const Rect& band);

// "PolarToCarteTransform": each pixel of `area` takes the bilinear sample of
// the polar image at column r - r_base and row t, (r, t) from the mapping
// table (radius in pixels and angle in tenths of a degree, a float pair a
// pixel). Alpha becomes 255.
struct PolarToCarteParam {
  const RayRows* polar = nullptr;
  int32_t polar_w = 0;        // columns in use (>= 2)
  int32_t polar_h = 0;        // rows in use (>= 2)
  SmartBuffer* dst = nullptr;
  const float* map = nullptr;  // dst width x height x 2
  float r_base = 0.0f;
  Rect area;
};
int32_t PolarToCarte(const PolarToCarteParam& p, const Rect& band);

// The inverse rotation: pixel (x, y) of `area` takes the bilinear sample of
// the rotated image at (u0 + x ux + y uy, v0 + x vx + y vy). Alpha becomes 255.
struct RotateBackParam {
  const RayRows* rotated = nullptr;
  int32_t rotated_w = 0;  // columns in use (>= 2)
  int32_t rotated_h = 0;  // rows in use (>= 2)
  SmartBuffer* dst = nullptr;
  float u0 = 0.0f, ux = 1.0f, uy = 0.0f;
  float v0 = 0.0f, vx = 0.0f, vy = 1.0f;
  Rect area;
};
int32_t RotateBack(const RotateBackParam& p, const Rect& band);

// "PostProcess": each pixel to HSV; saturation and value through the tables
// (indexed by the 8-bit level, giving 0..32640), the hue turned by
// hue_shift hundredths of a degree and wrapped once by kLightRaysHueTurn
// (WrapHue of core/LightMap.h); back to RGB. Alpha untouched. Black stays
// black.
struct PostProcessParam {
  SmartBuffer* img = nullptr;
  const int32_t* value_lut = nullptr;  // 256 entries
  const int32_t* sat_lut = nullptr;    // 256 entries
  int32_t hue_shift = 0;               // -18000..18000
};
int32_t PostProcess(const PostProcessParam& p, const Rect& band);

// The colour stage keeps hues in 0..35999, so a shifted hue wraps by 35999,
// one less than a full turn.
constexpr int32_t kLightRaysHueTurn = 35999;

// SSE4.1 and AVX2 forms with the same results (the colour stage has an
// AVX2 form only).
int32_t SampleRows_SSE(const SampleRowsParam& p, const Rect& band);
int32_t PolarToCarte_SSE(const PolarToCarteParam& p, const Rect& band);
int32_t RotateBack_SSE(const RotateBackParam& p, const Rect& band);
int32_t SmearRows_SSE(const SmearRowsParam& p, const Rect& band);
int32_t HighLightDetect_AVX2(const HighLightParam& p, const Rect& band);
int32_t SampleRows_AVX2(const SampleRowsParam& p, const Rect& band);
int32_t PolarToCarte_AVX2(const PolarToCarteParam& p, const Rect& band);
int32_t RotateBack_AVX2(const RotateBackParam& p, const Rect& band);
int32_t SmearRows_AVX2(const SmearRowsParam& p, const Rect& band);
int32_t PostProcess_AVX2(const PostProcessParam& p, const Rect& band);

namespace light_rays_detail {

// Bilinear mix of four BGRA pixels with 8-bit fractions fx, fy (0..255),
// rounded: the B, G, R of the result in the low three bytes, alpha 255.
inline uint32_t Mix4(const uint8_t* p00, const uint8_t* p01, const uint8_t* p10, const uint8_t* p11, int32_t fx,
                     int32_t fy) {
  const int32_t w00 = (256 - fx) * (256 - fy), w01 = fx * (256 - fy), w10 = (256 - fx) * fy, w11 = fx * fy;
  uint32_t out = 0xFF000000u;
  for (int32_t c = 0; c < 3; ++c) {
    const int32_t v = (p00[c] * w00 + p01[c] * w01 + p10[c] * w10 + p11[c] * w11 + 32768) >> 16;
    out |= static_cast<uint32_t>(v) << (8 * c);
  }
  return out;
}

// The 8-bit fraction of a position whose integer part is i.
inline int32_t Frac8(float v, int32_t i) { return static_cast<int32_t>((v - static_cast<float>(i)) * 256.0f); }

// One bilinear sample of a BGRA image, zero outside it: pixels beyond the
// edge count as black, so the image fades out over its last pixel.
inline uint32_t SampleOrZero(const SmartBuffer& img, float x, float y) {
  if (!(x > -1.0f && y > -1.0f && x < static_cast<float>(img.width) && y < static_cast<float>(img.height))) return 0;
  const int32_t xi = static_cast<int32_t>(x + 1.0f) - 1;  // floor, x > -1
  const int32_t yi = static_cast<int32_t>(y + 1.0f) - 1;
  static const uint8_t kBlack[4] = {0, 0, 0, 0};
  const auto at = [&](int32_t px, int32_t py) -> const uint8_t* {
    if (px < 0 || py < 0 || px >= img.width || py >= img.height) return kBlack;
    return RowPtr(img, py) + static_cast<ptrdiff_t>(px) * 4;
  };
  return Mix4(at(xi, yi), at(xi + 1, yi), at(xi, yi + 1), at(xi + 1, yi + 1), Frac8(x, xi), Frac8(y, yi));
}

// The top-left pixel and 8-bit fractions of a bilinear sample at (u, v),
// clamped into the first w x h pixels of a ray-space image (w, h >= 2).
struct Cell {
  int32_t ui, vi, fu, fv;
};
inline Cell ClampedCell(int32_t w, int32_t h, float u, float v) {
  u = std::min(std::max(u, 0.0f), static_cast<float>(w - 1));
  v = std::min(std::max(v, 0.0f), static_cast<float>(h - 1));
  Cell c;
  c.ui = std::min(static_cast<int32_t>(u), w - 2);
  c.vi = std::min(static_cast<int32_t>(v), h - 2);
  c.fu = std::min(Frac8(u, c.ui), 255);
  c.fv = std::min(Frac8(v, c.vi), 255);
  return c;
}

// The rows of `band` inside `area`, cut to the image.
inline Rect BandInArea(const Rect& band, const Rect& area, const SmartBuffer& dst) {
  Rect r = Clip(area, dst.width, dst.height);
  r.top = std::max(r.top, band.top);
  r.bottom = std::min(r.bottom, band.bottom);
  return r;
}

}  // namespace light_rays_detail

}  // namespace Korvane
