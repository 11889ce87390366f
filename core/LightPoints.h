// Public header: part of the installed API.
// The light points bokeh and sparkle found in a photo, as an application can
// read them back: to show them over the photo, to tune the amount before
// rendering, or to save them.
#pragma once

#include <cstdint>

namespace Korvane {

// One light point, in pixels of the detection copy (the photo resized so its
// longer side is 640).
struct LightPointInfo {
  int32_t x = 0;
  int32_t y = 0;
  int32_t phase = 0;        // where its twinkle starts, in samples of the effect's curve
  float random = 0.0f;      // in [0, 1): the point is shown when it is at least 1 - amount
  int32_t color_index = 0;  // its hue in the effect's table of random hues
  uint8_t enabled = 1;      // 0: hidden (sparkle's SPARKLE_REMOVE)
  // 1: it sits on real light, bright against the photo and against its
  // surroundings; the records' highlights_only draws only these.
  uint8_t highlight = 0;
  uint8_t reserved[2] = {0, 0};
};

// What a query reports beside the points.
struct LightPointSummary {
  int32_t norm_width = 0;     // size of the detection copy
  int32_t norm_height = 0;
  int32_t curve_samples = 0;  // samples in the effect's twinkle curve (the range of `phase`)
  int32_t count = 0;          // points found
};

// Which light shapes a render of a region draws.
enum RegionMode : int32_t {
  // Those whose centre lies inside the region (the records' default). A
  // shape centred just outside the region is left out, so the render of a
  // region can differ from the same rectangle of the whole picture near its
  // edges.
  REGION_CENTRES_INSIDE = 0,
  // Every shape that reaches into the region: a region's render equals that
  // rectangle of the whole picture byte for byte, so tiles join without a seam.
  REGION_SHAPES_REACHING = 1,
};

}  // namespace Korvane
