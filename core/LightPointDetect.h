// Light-point detection: the small bright spots of a photo at which bokeh
// discs or sparkles are placed, and the list of points built from them.
//
// The detector is a Harris corner detector on the HSL lightness of a BGRA32
// image, followed by non-maximum suppression and a fixed threshold:
//
//   lightness -> GradientH / GradientV (distance d, samples clamped at the
//   edges) -> dx*dx, dy*dy, dx*dy -> box blurs H, H, V, V of radius d ->
//   response dxx*dyy - dxy^2 - k (dxx + dyy)^2 -> min / max -> [0, max]
//   mapped onto [0, 255] -> non-maximum suppression -> threshold to 0 / 1.
//
// Effects run it on their 640-pixel normalised copy, so its cost does not
// grow with the photo. The bokeh effect keeps the result as a GRAY8 map
// (InitAutoBokehMap); other callers may keep the FLOAT32 0 / 1 map
// (DetectLightPoints) with their own radius and threshold.
//
// Every band kernel below works on the rows and columns of its ROI only and
// writes nothing else, so the detector runs them in bands on the pool with
// no locking.
#pragma once

#include <cfloat>
#include <cstdint>
#include <map>
#include <vector>

#include "core/ImageBuffer.h"
#include "core/LightPoints.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// ---------------------------------------------------------------------------
// Band kernels. Each checks its images (E_POINTER when pixels are missing,
// E_NOTIMPL for a wrong format, E_INVALIDARG for an ROI outside the images or
// images of different sizes) and works on `roi`.

// dx(x, y) = (light(x - d, y) - light(x + d, y)) / 255 with light(p) =
// (max(B, G, R) + min(B, G, R)) / 2 and columns clamped into the image.
// src BGRA32 (E_NOTIMPL otherwise); dst FLOAT32 (E_INVALIDARG otherwise).
int32_t GradientH(const SmartBuffer& src, SmartBuffer& dst, int32_t d, const Rect& roi);
// The same between the row above and the row below, rows clamped.
int32_t GradientV(const SmartBuffer& src, SmartBuffer& dst, int32_t d, const Rect& roi);

// dst = a * b element by element (FLOAT32; dst may be a or b).
int32_t MultiplyBuffer(const SmartBuffer& a, const SmartBuffer& b, SmartBuffer& dst, const Rect& roi);

// dst = dxx * dyy - dxy^2 - k (dxx + dyy)^2 (FLOAT32).
int32_t CalCornerResponse(const SmartBuffer& dxx, const SmartBuffer& dyy, const SmartBuffer& dxy, SmartBuffer& dst,
                          float k, const Rect& roi);

// Smallest and largest value over roi. The minimum starts at FLT_MAX and the
// maximum at FLT_MIN (the smallest positive normal float), so a map with no
// positive value reports that tiny maximum.
int32_t GetBuffMinMax(const SmartBuffer& buf, float& min_value, float& max_value, const Rect& roi);

// value = (x - from_lo) (to_hi - to_lo) / (from_hi - from_lo) + to_lo,
// clamped to [to_lo, to_hi], in place. E_INVALIDARG when from_hi == from_lo.
int32_t NormalizeMinMax(SmartBuffer& buf, float from_lo, float from_hi, float to_lo, float to_hi, const Rect& roi);

// For each pixel of roi: dst = the pixel when no pixel of the
// (2r + 1) x (2r + 1) window around it (cut to the image) is strictly
// greater, else dst is left as it is (the caller clears it). Equal
// neighbours therefore both survive. r < 0: E_INVALIDARG; r = 0: returns
// at once, dst untouched. Reads src outside roi (the window), writes dst
// inside it only.
int32_t NonMaximumSuppress(const SmartBuffer& src, SmartBuffer& dst, int32_t r, const Rect& roi);

// Every value becomes 1.0 when it is not less than t, else 0.0 (in place).
int32_t ThreshCornerMap(SmartBuffer& map, float t, const Rect& roi);

// FLOAT32 to GRAY8: clamped to [0, 255] (NaN and values <= 0 give 0), truncated.
int32_t CvtBuffFloatToChar(const SmartBuffer& src, SmartBuffer& dst, const Rect& roi);

// AVX2 forms of the kernels the detector runs, with the same results (and
// codes). There are no SSE4.1 forms: the detector works on a 640-pixel copy,
// where the plain forms serve older processors well enough.
int32_t CalCornerResponse_AVX2(const SmartBuffer& dxx, const SmartBuffer& dyy, const SmartBuffer& dxy, SmartBuffer& dst,
                               float k, const Rect& roi);
int32_t GetBuffMinMax_AVX2(const SmartBuffer& buf, float& min_value, float& max_value, const Rect& roi);
int32_t NormalizeMinMax_AVX2(SmartBuffer& buf, float from_lo, float from_hi, float to_lo, float to_hi, const Rect& roi);
int32_t NonMaximumSuppress_AVX2(const SmartBuffer& src, SmartBuffer& dst, int32_t r, const Rect& roi);
int32_t ThreshCornerMap_AVX2(SmartBuffer& map, float t, const Rect& roi);
int32_t CvtBuffFloatToChar_AVX2(const SmartBuffer& src, SmartBuffer& dst, const Rect& roi);

// ---------------------------------------------------------------------------
// The detector.

// Gradient and box-blur radius for an image whose longer side is
// long_side: trunc(min(0.005 x long_side, max_radius)).
int32_t LightPointRadius(int32_t long_side, float max_radius);

// Harris response of src (BGRA32) into dst (FLOAT32, src's size), scaled to
// [0, 255] over [0, maximum]; negative responses (edges) become 0 and a flat
// image (minimum == maximum) gives all zeros. Runs on the adapter, with the
// kernels' AVX2 forms where `info` allows them. E_POINTER / E_NOTIMPL as the
// kernels; E_INVALIDARG for d < 0 or roi outside the images.
int32_t HarrisCorner(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& src, SmartBuffer& dst, float k,
                     int32_t d, const Rect& roi);

struct LightPointSettings {
  int32_t radius = -1;      // gradient and box-blur radius; < 0: LightPointRadius(L, 4.0)
  float harris_k = 0.006f;  // Harris constant
  int32_t nms_radius = 4;   // non-maximum suppression window radius (9 x 9)
  float threshold = 25.0f;  // on the 0..255 response scale; a response equal to it passes
};

// The whole detector: `map` (created here as FLOAT32 at src's size) holds
// 1.0 at a light point and 0.0 elsewhere. Logs a failing stage with its
// name ("HarrisCorner", then the form that ran: "NonMaximumSuppress" or
// "NonMaximumSuppress_AVX2", "ThreshCornerMap" or "ThreshCornerMap_AVX2").
int32_t DetectLightPoints(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& src,
                          const LightPointSettings& settings, SmartBuffer& map);

// The bokeh form: the default settings, the map converted to GRAY8 into
// location_map (which must exist at src's size): 1 at a light point, else 0.
// E_POINTER when either image is missing.
int32_t InitAutoBokehMap(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& src,
                         SmartBuffer& location_map);

// ---------------------------------------------------------------------------
// The list of light points.

struct LightPoint {
  int32_t phase = 0;         // twinkle phase: an index into the effect's twinkle curve
  int32_t frame_offset = 0;  // set per frame: index into the per-frame twinkle table
  float random = 0.0f;       // in [0, 1): compared with the amount when pasting
  int32_t x = 0;             // position in the map
  int32_t y = 0;
  int32_t color_index = 0;  // index into the effect's random colour table
  int32_t size_id = 0;      // shape variant, set per frame (negative: not pasted)
  uint8_t enabled = 1;      // 0: never pasted
  uint8_t flag = 0;         // free for the effect's own use
  uint8_t highlight = 0;    // sits on real light (MarkHighlights of core/LightHighlights.h)
};

// Keyed by the pixel index y x width + x, so iteration is in scan order.
using LightPointList = std::map<int32_t, LightPoint>;

// One point's draws from its own MT19937 seeded with `seed`, in this
// order: the phase (DrawIndex over phase_count), the random float
// (DrawUnit), the colour index (DrawIndex over color_count). Every light
// point of an effect, found or placed, is drawn this way, so the same photo
// and the same edits animate the same way on every platform.
LightPoint DrawLightPoint(uint32_t seed, int32_t phase_count, int32_t color_count);

// Clears `list` and adds one entry per map pixel equal to 1 (GRAY8 value 1 or
// FLOAT32 value 1.0), in scan order, each drawn by DrawLightPoint seeded
// with its pixel index. E_POINTER without pixels, E_NOTIMPL for another map
// format, E_INVALIDARG for counts below 1. An empty map gives an empty list.
int32_t InitLightPointList(const SmartBuffer& map, int32_t phase_count, int32_t color_count, LightPointList& list);

// The public answer of an effect's GetLightPoints: the summary, and the
// first min(capacity, list size) points copied out in list order.
// E_POINTER without a summary, E_INVALIDARG for a negative capacity or
// points NULL with a positive capacity.
int32_t CopyLightPoints(const LightPointList& list, int32_t norm_w, int32_t norm_h, int32_t curve_samples,
                        LightPointSummary* summary, LightPointInfo* points, int32_t capacity);

}  // namespace Korvane
