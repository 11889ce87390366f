// Pasting light shapes (bokeh discs, sparkles) into a BGRA32 light map, and
// adding a finished light map to a photo.
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
// Every kernel exists plain, SSE4.1 (suffix _SSE) and AVX2 (suffix _AVX2),
// all with identical results.
// The effects call them under their own names (PasteBokeh, PasteSparkle, ...).
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

// One prepared shape of pasting size d (BGRA32). Only a part of it may be
// held: on a light map narrower or lower than the shape, the columns or rows
// that can never land on the map are left out (LightShapeWindow), so a shape
// costs no more memory than the map does.
struct LightShape {
  int32_t d = 0;
  Rect window;        // the part held, in shape pixels; empty: all d x d
  SmartBuffer shape;  // the held pixels, the window's size
  SmartBuffer tmp;    // the sub-pixel paste's working image: the window one pixel larger each way
                      // (only the integer paste may leave it empty)

  Rect Held() const { return window.right > window.left && window.bottom > window.top ? window : Rect{0, 0, d, d}; }
};

// The part of a d x d shape that can land on a map_w x map_h light map when
// its centre lies on the map, whole-pixel or sub-pixel: the columns within
// map_w + 2 of the shape's centre column (d & ~1) / 2, the rows within
// map_h + 2 of its centre row, cut to the shape.
Rect LightShapeWindow(int32_t d, int32_t map_w, int32_t map_h);

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

// Integer paste of `shape` into `light` (BGRA32) at pt_int, over shape_roi
// from CalPasteLightROI. E_POINTER for missing pixels, E_NOTIMPL for other
// formats, E_INVALIDARG for a shape image that is not its held part's size
// or a shape_roi that does not fit both images at this position (or falls
// outside the held part). An empty shape_roi pastes nothing.
int32_t PasteLight(const LightShape& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                   const Rect& shape_roi);
int32_t PasteLight_SSE(const LightShape& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                       const Rect& shape_roi);
int32_t PasteLight_AVX2(const LightShape& shape, SmartBuffer& light, PointI pt_int, const LightPasteArgs& args,
                        const Rect& shape_roi);

// Sub-pixel paste of `shape` at pt: resamples it into shape.tmp (only the
// rows and columns of shape_roi are written) and pastes that over shape_roi
// from CalBilinearPasteLightROI. Codes as PasteLight; E_INVALIDARG also for
// a tmp smaller than the held part plus one each way.
int32_t BilinearPasteLight(LightShape& shape, SmartBuffer& light, PointF pt, const LightPasteArgs& args,
                           const Rect& shape_roi);
int32_t BilinearPasteLight_SSE(LightShape& shape, SmartBuffer& light, PointF pt, const LightPasteArgs& args,
                               const Rect& shape_roi);
int32_t BilinearPasteLight_AVX2(LightShape& shape, SmartBuffer& light, PointF pt, const LightPasteArgs& args,
                                const Rect& shape_roi);

// The two paste forms as an effect names them in its log.
using LightPasteFn = int32_t (*)(const LightShape&, SmartBuffer&, PointI, const LightPasteArgs&, const Rect&);
using BilinearLightPasteFn = int32_t (*)(LightShape&, SmartBuffer&, PointF, const LightPasteArgs&, const Rect&);

// ---------------------------------------------------------------------------
// Adding a light map to the photo.

struct LightMapAddParam {
  SmartBuffer base;   // BGRA32: the (blurred) photo
  SmartBuffer light;  // BGRA32, base's size: the enlarged light map
  ImageBuffer dst;    // BGRA32, the size of roi
  Rect roi;           // the part of base and light that dst shows
  // NULL: the light is added as it is. Otherwise each light byte v adds
  // table[v] instead (a strength below 1, see CalLightAddTable).
  const uint8_t* table = nullptr;
};

// For every pixel (x, y) of `band` (rows of roi, in base coordinates):
// dst(x - roi.left, y - roi.top) gets B, G, R = min(255, base + light) (or
// base + table[light]) and base's alpha. E_POINTER / E_NOTIMPL /
// E_INVALIDARG for images that do not fit. Run it as the band task
// PickLightMapAdd(info) of core/LightMap.h.
int32_t ImageAddLightMap(const LightMapAddParam& p, const Rect& band);
int32_t ImageAddLightMap_SSE(const LightMapAddParam& p, const Rect& band);
int32_t ImageAddLightMap_AVX2(const LightMapAddParam& p, const Rect& band);

// The table of a light added at `strength` (0..1): T[i] = min((int)(i x
// strength + 0.5), 255), the product in float and the rounding in double.
// At strength 1 it is the identity, so the add with it is the plain add.
void CalLightAddTable(float strength, uint8_t table[256]);
void CalLightAddTable_SSE(float strength, uint8_t table[256]);
void CalLightAddTable_AVX2(float strength, uint8_t table[256]);

}  // namespace Korvane
