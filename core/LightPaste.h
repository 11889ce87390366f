// Pasting light shapes (bokeh discs, sparkles) into a BGRA32 light map, and
// adding the finished light map to a photo.
//
// A paste adds a square shape image, scaled by a lightness and tinted by a
// colour, onto the light map and saturates each channel at 255; alpha is
// never touched. Overlapping shapes add up in the order they are pasted.
//
// Two placements:
// - integer: the shape's top-left pixel lies at pt_int - (d & ~1) / 2, so
//   the centre pixel of an odd shape lands exactly on pt_int;
// - sub-pixel: the shape is first resampled (bilinear, 8-bit weights) into a
//   temporary image one pixel larger each way, shifted by the fractional
//   part of its position, so a shape moves smoothly as pt moves: its light
//   centroid lies at pt whatever the fraction.
//
// Both forms exist plain and SSE4.1 (suffix _SSE) with identical results.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

struct PointI {
  int32_t x = 0;
  int32_t y = 0;
};
struct PointF {
  float x = 0.0f;
  float y = 0.0f;
};

// Colour of a paste, 0..255 per channel.
struct LightColor {
  int32_t b = 0;
  int32_t g = 0;
  int32_t r = 0;
};

// How a shape pixel becomes light. c_k = trunc(colour_k x lightness) is
// computed once per paste, k = B, G, R.
enum LightPasteMode : int32_t {
  // Bokeh: intensity = trunc((B + G + R) x 0.333) of the shape pixel;
  // dst_k = min(255, dst_k + ((c_k x intensity) >> 8)).
  LIGHT_PASTE_INTENSITY = 0,
  // Coloured shapes (sparkles): each channel by itself,
  // dst_k = min(255, dst_k + ((c_k x shape_k) >> 8)). A white colour keeps
  // the shape's own colours.
  LIGHT_PASTE_CHANNELS = 1,
};

// Everything a paste needs besides the images.
struct LightPasteArgs {
  float lightness = 1.0f;  // 0..1
  LightColor color;
  int32_t mode = LIGHT_PASTE_INTENSITY;
};

// The part of a d x d shape centred at pt (integer placement above) that
// falls inside a w x h light map, as shape columns [left, right) and rows
// [top, bottom). An empty rectangle when nothing falls inside (a success:
// nothing to paste). E_INVALIDARG for d < 1 or an empty map.
int32_t CalPasteLightROI(Rect& shape_roi, PointI pt, int32_t d, int32_t h, int32_t w);

// The same for the sub-pixel placement: the (d + 1) x (d + 1) footprint of
// the resampled shape, whose top-left lies at floor(pt - (d & ~1) / 2) (a
// fraction that rounds to a whole pixel moves it one on). `origin`
// receives that top-left in light-map coordinates. E_INVALIDARG also for a
// position that is not finite or lies more than 2^30 pixels out.
int32_t CalBilinearPasteLightROI(Rect& shape_roi, PointI& origin, PointF pt, int32_t d, int32_t h, int32_t w);

// Integer paste of `shape` (BGRA32, d x d) into `light` (BGRA32) at pt_int,
// over shape_roi from CalPasteLightROI. E_POINTER for missing pixels,
// E_NOTIMPL for other formats, E_INVALIDARG for a shape that is not square
// or a shape_roi that does not fit both images at this position. An empty
// shape_roi pastes nothing.
int32_t PasteLight(const SmartBuffer& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                   const Rect& shape_roi);
int32_t PasteLight_SSE(const SmartBuffer& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                        const Rect& shape_roi);

// Sub-pixel paste of `shape` (d x d) at pt: resamples it into `tmp`
// (BGRA32, at least (d + 1) x (d + 1); only the rows and columns of
// shape_roi are written) and pastes that over shape_roi from
// CalBilinearPasteLightROI. Codes as PasteLight.
int32_t BilinearPasteLight(const SmartBuffer& shape, SmartBuffer& tmp, SmartBuffer& light, PointF pt,
                           const LightPasteArgs& args, const Rect& shape_roi);
int32_t BilinearPasteLight_SSE(const SmartBuffer& shape, SmartBuffer& tmp, SmartBuffer& light, PointF pt,
                                const LightPasteArgs& args, const Rect& shape_roi);

// ---------------------------------------------------------------------------
// Sizing the light map.

// Scale of the light map for a photo whose longer side is long_side: 1.0 up
// to 640 pixels, 0.25 from 5120 on, linear between, so pasting costs about
// the same for any photo. E_INVALIDARG for long_side < 1.
int32_t CalLightMapScaleRatio(int32_t long_side, float& ratio);

// ---------------------------------------------------------------------------
// Adding the light map to the photo.

struct LightMapAddParam {
  SmartBuffer base;   // BGRA32: the (blurred) photo
  SmartBuffer light;  // BGRA32, base's size: the upsampled light map
  ImageBuffer dst;    // BGRA32, the size of roi
  Rect roi;           // the part of base and light that dst shows
};

// For every pixel (x, y) of `band` (rows of roi, in base coordinates):
// dst(x - roi.left, y - roi.top) gets B, G, R = min(255, base + light) and
// base's alpha. E_POINTER / E_NOTIMPL / E_INVALIDARG for images that do not
// fit. Run with BandTask<LightMapAddParam, ImageAddLightMap> over roi.
int32_t ImageAddLightMap(const LightMapAddParam& p, const Rect& band);
int32_t ImageAddLightMap_SSE(const LightMapAddParam& p, const Rect& band);

// A chosen form of ImageAddLightMap with its parameters, for a RowPipeline
// step or an adapter task: RunLightMapAdd (job->param a LightMapAddTask) adds
// over job->rect.
struct LightMapAddTask {
  int32_t (*fn)(const LightMapAddParam&, const Rect&) = nullptr;
  LightMapAddParam p;
};
int32_t RunLightMapAdd(ThreadJob* job, int32_t* result);

}  // namespace Korvane
