// The structured inputs of two commands and their JSON form: animate's flow
// lines and sparkle's placed glints. Front ends fill the structs directly
// (Python from lists and dicts, GIMP from the strokes and anchors of a path)
// or parse the JSON the tool reads from files:
//
//   {"flows": [{"type": "path", "points": [[315, 143], [307, 154]]},
//              {"type": "anchor", "points": [[287, 143]]}]}
//   {"sparkles": [{"x": 36, "y": 60, "scale": 2}, {"x": 84, "y": 24}]}
//
// And the light points bokeh and sparkle detect, as the JSON the tool writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <korvane/core/LightPoints.h>
#include <korvane/effects/animation/Animation.h>

namespace KorvaneFrontend {

struct FlowLine {
  uint32_t type = Korvane::FLOW_PATH;  // Korvane::FlowType
  std::vector<float> points;           // x, y pairs in photo pixels
};

// A glint placed at x, y (photo pixels), `scale` times the largest
// automatic glint, in (0, 6].
struct PlacedSparkle {
  double x = 0;
  double y = 0;
  double scale = 1;
};

// "path", "stroke" or "anchor"; false for another name.
bool FlowTypeOf(const std::string& name, uint32_t& type);
const char* FlowTypeName(uint32_t type);

// Parse JSON text. `name` (a file name, "flows") starts every message, which
// names the entry at fault: "f.json: flows[1].points[1] must be [x, y] with
// two numbers". Bytes of the text are never echoed.
bool ParseFlowsJson(const std::string& text, const std::string& name, std::vector<FlowLine>& flows,
                    std::string& error);
bool ParsePlacedSparklesJson(const std::string& text, const std::string& name, std::vector<PlacedSparkle>& sparkles,
                             std::string& error);

// The reverse of ParseFlowsJson, one flow per line.
std::string FlowsJson(const std::vector<FlowLine>& flows);

// {"width": W, "height": H, "points": [{"x", "y", "phase", "random", "color"}, ...]}
// with W x H the detection copy's size, the points in list order and
// `random` with 9 significant digits (enough to read back the same float).
std::string LightPointsJson(const Korvane::LightPointSummary& summary,
                            const std::vector<Korvane::LightPointInfo>& points);

}  // namespace KorvaneFrontend
