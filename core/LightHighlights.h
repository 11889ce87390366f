// Which detected light points sit on real light. The corner detector also
// answers to texture (the pores of an orange, leaf teeth, a lattice against
// the sky); a light is bright against the whole photo and against what
// surrounds it. Bokeh and sparkle mark their points once per source and,
// when their record asks for it, draw only the marked ones.
#pragma once

#include <cstdint>

#include "core/ImageBuffer.h"
#include "core/LightPointDetect.h"

namespace Korvane {

struct HighlightRule {
  // A point's lightness (the brightest of its 3 x 3 pixels) must lie among
  // the brightest `bright_share` of the photo's pixels, and reach
  // `top_fraction` of the lightness of the photo's brightest `top_share`
  // (its highlights: lit metal or a white wall in a night shot stays below
  // the lamps) ...
  double bright_share = 0.03;
  double top_share = 0.001;
  double top_fraction = 0.88;
  // ... and exceed the mean lightness of the square around it (half-width
  // `surround` pixels of the detection copy, 640 on the longer side) by
  // `contrast` (of 255).
  int32_t surround = 12;
  double contrast = 48.0;
};

// Sets `highlight` of every point of `list` (positions in pixels of `norm`,
// the BGRA32 detection copy): 1 when it passes `rule`, else 0. E_POINTER
// without pixels, E_NOTIMPL for another format, E_INVALIDARG for an empty
// copy or a point outside it.
int32_t MarkHighlights(const SmartBuffer& norm, LightPointList& list, const HighlightRule& rule = HighlightRule());

}  // namespace Korvane
