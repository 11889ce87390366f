// The light map that bokeh and sparkle paint (and that light rays add): its
// sizes, where a light point lands on it, how bright a point is in a frame
// of a loop and what colour a random hue is, the paste of one point, and
// the enlargement of the finished map added to the photo.
//
// One frame, as bokeh and sparkle run it:
//
//   CalLightMapScaleRatio(longer side, ratio)           (1.0 in full-size modes)
//   scaled = CalScaledSize(photo size, ratio)
//   LightRegion::For(roi, ratio, scaled, region mode, whole pixels?, region)
//   LightMapPainter painter(map, region, the effect's paste names)
//   PasteLightPoints(painter, points, levels, threshold, locate, colour)
//   RunLightMapEnlargeAdd(...)                          (UpsampleLightMap + ImageAddLightMap)
//
// Light points are found on a copy of the photo whose longer side is 640
// pixels (the detection copy); the map is the photo scaled by the ratio.
// Light rays add their half-size rays with the same enlarge-and-add, at a
// strength (a table of the add).
#pragma once

#include <cstdint>
#include <vector>

#include "core/BandTask.h"
#include "core/ImageBuffer.h"
#include "core/LightPaste.h"
#include "core/LightPointDetect.h"
#include "core/Simd.h"
#include "core/SystemInfo.h"
#include "core/ThreadAdapter.h"

namespace Korvane {

// ---------------------------------------------------------------------------
// Sizes.

// Longer side of the detection copy.
constexpr int32_t kLightNormLongSide = 640;

struct LightSize {
  int32_t w = 0;
  int32_t h = 0;
};

// The detection copy of a width x height photo: the longer side 640 (small
// photos are scaled up too), the other trunc(side x (640 / longer side)),
// at least 1.
LightSize CalNormSize(int32_t width, int32_t height);

// Scale of the light map for a photo whose longer side is long_side: 1.0 up
// to 640 pixels, 0.25 from 5120 on, linear between, so pasting costs about
// the same for any photo. E_INVALIDARG for long_side < 1.
int32_t CalLightMapScaleRatio(int32_t long_side, float& ratio);

// trunc(side x ratio + 0.5) per axis, at least 1.
LightSize CalScaledSize(LightSize photo, float ratio);

// The region `roi` of the photo in light-map pixels with `margin` pixels
// each side: left = max(0, trunc(left x ratio - margin)), right =
// min(trunc(right x ratio + margin), scaled.w), the same for the rows.
// E_INVALIDARG for a ratio outside (0, 1].
int32_t ResizeLightMapROI(const Rect& roi, Rect& scaled_roi, float ratio, LightSize scaled, int32_t margin = 1);

// Where a point lands on the light map.
struct LightMapGeometry {
  LightSize photo, norm, scaled;

  // The longer side of the map.
  int32_t LongSide() const { return scaled.w > scaled.h ? scaled.w : scaled.h; }
  // A pixel of the detection copy: its offset from the copy's centre, scaled
  // by (longer map side / 640), from the map's centre.
  PointF FromNorm(int32_t x, int32_t y) const;
  // A position in photo pixels, pixel centres kept on pixel centres.
  PointF FromPhoto(float x, float y) const;
};

// ---------------------------------------------------------------------------
// Which points a render of a region draws (RegionMode of core/LightPoints.h).

struct LightRegion {
  Rect area;     // the part of the map the frame clears, paints and enlarges
  Rect centres;  // REGION_CENTRES_INSIDE: a point is drawn when its centre lies here
  Rect map;      // the whole map
  int32_t mode = REGION_CENTRES_INSIDE;
  bool whole_pixels = false;  // shapes land on whole pixels (else sub-pixel)

  // The region for a render of `roi`. In REGION_CENTRES_INSIDE the area and
  // the centres are the region with a one-pixel margin. In
  // REGION_SHAPES_REACHING the area has a margin of two pixels, which holds
  // every map pixel the enlargement of roi reads, and a point is drawn when
  // it would be drawn in a render of the whole photo and its shape reaches
  // into the area: the map the enlargement reads is then that of the whole
  // photo, and the render the crop of the whole render.
  static int32_t For(const Rect& roi, float ratio, LightSize scaled, int32_t mode, bool whole_pixels,
                     LightRegion& region);

  // Whether a d x d shape centred at pt is drawn.
  bool Draws(PointF pt, int32_t d) const;
};

// ---------------------------------------------------------------------------
// Loops.

// Frame `index` of a loop of `count` frames, reduced into the loop: index
// mod count (0 for count < 1 or index < 0). Frame count + k is frame k.
inline int32_t LoopFrame(int32_t index, int32_t count) { return count >= 1 && index >= 0 ? index % count : 0; }

// How far frame `index` has gone through the loop, in units of `per_loop`:
// per_loop x (index mod count) / count, the index reduced before any float
// arithmetic so frame count + k gives exactly the value of frame k. Every
// animated setting of the light effects advances through this one formula
// (T is float or double, as each setting's arithmetic is).
template <class T>
inline T LoopPhase(int32_t index, int32_t count, T per_loop) {
  if (count < 1) return T(0);
  return static_cast<T>(LoopFrame(index, count)) * per_loop / static_cast<T>(count);
}

// A point's brightness over its cycle: `samples` values of 0..1.
class TwinkleCurve {
 public:
  // Built from its parts: `dark_before` zeros; step x k for k = 1 ..
  // rise_steps; `peak` repeated peak_count times; step x k for k =
  // fall_steps down to 1 (fall_step); zeros up to `samples`.
  TwinkleCurve(int32_t samples, int32_t dark_before, float rise_step, int32_t rise_steps, float peak,
               int32_t peak_count, float fall_step, int32_t fall_steps);

  int32_t Samples() const { return static_cast<int32_t>(m_values.size()); }
  float operator[](int32_t i) const { return m_values[static_cast<size_t>(i)]; }
  const std::vector<float>& Values() const { return m_values; }

  // Frame i of the curve stretched over a loop of `count` frames: the
  // linear interpolation at x = i x (samples / count), k = min(trunc(x),
  // samples - 2), (1 - f) curve[k] + f curve[k + 1] with f = x - k. Computed
  // for the one frame asked, so a loop of any length costs nothing more.
  float AtFrame(int32_t i, int32_t count) const;

 private:
  std::vector<float> m_values;
};

// The frame of the stretched curve a point with this phase shows at frame
// `index` of a loop of `count` frames, when it goes through the curve
// `cycles` times a loop: its start frame min(trunc(phase x count / samples
// + 0.5), count - 1), plus LoopFrame(index, count) x cycles, modulo count.
int32_t TwinkleFrameOffset(int32_t phase, int32_t samples, int32_t count, int32_t index, int32_t cycles = 1);

// How bright a point is this frame, in the order an effect asks: fixed
// steps by phase (steps[phase x step_count / samples]) when given; else,
// twinkling, the curve stretched over frame_count frames at the point's
// frame offset; else the curve at the point's phase.
struct LightLevels {
  const TwinkleCurve* curve = nullptr;
  int32_t frame_count = 0;  // > 0: twinkling
  const float* steps = nullptr;
  int32_t step_count = 0;

  float At(const LightPoint& p) const;
  // Whether the point is lit in at least one frame of the loop: twinkling,
  // in some frame of its cycle (going through the curve `cycles` times a
  // loop); otherwise in every frame or in none.
  bool LitInLoop(const LightPoint& p, int32_t cycles = 1) const;
};

// ---------------------------------------------------------------------------
// Colours.

// Hues in hundredths of a degree: a full turn.
constexpr int32_t kLightHueTurn = 36000;
// The random hues a point may draw.
constexpr int32_t kLightRandomHueCount = 24;

// Entry i is i x 36000 / count (integer division). E_INVALIDARG for count < 1.
int32_t CalRandomColor(int32_t count, std::vector<uint32_t>& table);
// The table of kLightRandomHueCount hues, built once.
const std::vector<uint32_t>& RandomHueTable();

// A hue moved out of its range by a shift, brought back with one wrap:
// above `turn` it loses `turn`, below 0 it gains `turn`, then it is held in
// [0, turn]. Bokeh wraps by the full turn (36000); light rays by 35999 (its
// colour stage keeps hues below a full turn).
inline int32_t WrapHue(int32_t hue, int32_t turn) {
  if (hue > turn) hue -= turn;
  if (hue < 0) hue += turn;
  return hue < 0 ? 0 : (hue > turn ? turn : hue);
}

// ---------------------------------------------------------------------------
// Painting the map.

// How an effect's log lines name its pastes: the call texts of the two
// placements (the paste texts take the picked form's name for %s) and the
// picked forms themselves, e.g. PasteBokeh, PasteBokeh_SSE or PasteBokeh_AVX2.
struct LightPasteNames {
  const char* roi_call = "";
  const char* bilinear_roi_call = "";
  const char* paste_call = "";
  const char* bilinear_paste_call = "";
  Kernel<LightPasteFn> paste;
  Kernel<BilinearLightPasteFn> bilinear_paste;
};

class LightMapPainter {
 public:
  LightMapPainter(SmartBuffer& light, const LightRegion& region, const LightPasteNames& names)
      : m_light(light), m_region(region), m_names(names) {}

  const LightRegion& Region() const { return m_region; }
  // Pastes `shape` centred at pt (on the whole pixel nearest it, or at pt
  // itself), logging a failure under the effect's names.
  int32_t Paste(LightShape& shape, PointF pt, const LightPasteArgs& args) const;

 private:
  SmartBuffer& m_light;
  const LightRegion& m_region;
  const LightPasteNames& m_names;
};

// What an effect says about one of its points.
struct LightSpot {
  LightPoint point;             // its phase, random float, enable flag and frame offset
  PointF pt;                    // centre on the map
  LightShape* shape = nullptr;  // the variant to paste (NULL: none)
};

// Whether the paste loop draws a located spot, its brightness aside: it has
// a shape, is enabled, `threshold` does not exceed its random float and its
// shape is drawn in the region.
inline bool SpotShown(const LightSpot& spot, const LightRegion& region, float threshold) {
  const LightPoint& p = spot.point;
  return spot.shape && p.enabled && !(threshold > p.random) && region.Draws(spot.pt, spot.shape->d);
}

// The paste loop of every light point, in the order of `items`: a point is
// pasted when SpotShown and its level is above 0. `locate(item, spot)`
// fills the spot (false: skip the item); `colour(item, args)` sets
// args.color and args.mode (false: skip). Stops at the first failing paste
// and returns its code.
template <class Items, class Locate, class Colour>
int32_t PasteLightPoints(const LightMapPainter& painter, Items& items, const LightLevels& levels, float threshold,
                         Locate&& locate, Colour&& colour) {
  for (auto& item : items) {
    LightSpot spot;
    if (!locate(item, spot) || !SpotShown(spot, painter.Region(), threshold)) continue;
    const LightPoint& p = spot.point;
    LightPasteArgs args;
    args.lightness = levels.At(p);
    if (args.lightness == 0.0f || !colour(item, args)) continue;
    const int32_t hr = painter.Paste(*spot.shape, spot.pt, args);
    if (hr < 0) return hr;
  }
  return S_OK;
}

// The items the paste loop draws in at least one frame of the loop `levels`
// describe, with the same `locate` and threshold: `coloured(item)` says
// whether the item gets a colour; `drawn(item)` is called for each.
template <class Items, class Locate, class Coloured, class Drawn>
void ForEachDrawnLightPoint(const LightRegion& region, Items& items, const LightLevels& levels, int32_t cycles,
                            float threshold, Locate&& locate, Coloured&& coloured, Drawn&& drawn) {
  for (auto& item : items) {
    LightSpot spot;
    if (locate(item, spot) && SpotShown(spot, region, threshold) && levels.LitInLoop(spot.point, cycles) &&
        coloured(item)) {
      drawn(item);
    }
  }
}

// ---------------------------------------------------------------------------
// Images.

// The whole of `from` resized (bilinear) into the whole of `to`: the
// "ResizeBuffer" step of the light effects.
int32_t ResizeBuffer(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& from, SmartBuffer& to);

// `from` (BGRA32) resized into a d x d shape of which only shape.window is
// kept: fills shape.shape (already made at the held part's size) with the
// pixels the resize of the whole gives there. The whole shape goes through
// ResizeBuffer on the adapter; a part, on this thread.
int32_t ResizeShape(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& from, LightShape& shape);

// ---------------------------------------------------------------------------
// The finished map.

// The light-map add, in the form the processor runs.
inline PickedTask PickLightMapAdd(const SystemInfo& info) {
  return KORVANE_PICK_BAND_AVX2(info, LightMapAddParam, ImageAddLightMap, ImageAddLightMap_SSE, ImageAddLightMap_AVX2);
}

// Step names of the enlargement and the add, as an effect logs them.
struct LightMapAddSteps {
  const char* upsample = "UpsampleLightMap";
  const char* add = "ImageAddLightMap";
};

// Enlarges `scaled` (reading only scaled_roi) into add.light over add.roi
// and adds it to add.base into add.dst (through add.table when given: light
// rays add theirs at a strength), a few rows at a time so the enlarged rows
// are still in cache when they are added. A failure is logged under the
// step that failed; `failed_step`, when given, receives 0 (the enlargement,
// or the chain itself), 1 (the add) or -1.
int32_t RunLightMapEnlargeAdd(CThreadAdapter& adapter, const SystemInfo& info, const SmartBuffer& scaled,
                              const Rect& scaled_roi, LightMapAddParam& add, const LightMapAddSteps& steps = {},
                              int32_t* failed_step = nullptr);

}  // namespace Korvane
