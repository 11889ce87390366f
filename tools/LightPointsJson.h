// The light points an effect found, as the JSON that `korvane bokeh` and
// `korvane sparkle` write with --points-json.
#pragma once

#include <string>

#include "core/LightPointDetect.h"

namespace KorvaneTool {

// Writes {"width": W, "height": H, "points": [{"x", "y", "phase", "random",
// "color"}, ...]} with W x H the detection copy's size, the points in list
// order and `random` with 9 significant digits (enough to read back the same
// float), and reports the file. Returns 0 or an exit code.
int WriteLightPointsJson(const std::string& path, int width, int height, const Korvane::LightPointList& points);

}  // namespace KorvaneTool
