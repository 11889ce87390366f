#include "LightPointsJson.h"

#include <cstdio>

#include "ImageIO.h"
#include "ToolSupport.h"

namespace KorvaneTool {

int WriteLightPointsJson(const std::string& path, int width, int height, const Korvane::LightPointList& points) {
  std::string text =
      "{\"width\": " + std::to_string(width) + ", \"height\": " + std::to_string(height) + ", \"points\": [";
  bool first = true;
  char buf[160];
  for (const auto& entry : points) {
    const Korvane::LightPoint& p = entry.second;
    std::snprintf(buf, sizeof buf, "%s\n  {\"x\": %d, \"y\": %d, \"phase\": %d, \"random\": %.9g, \"color\": %d}",
                  first ? "" : ",", p.x, p.y, p.phase, static_cast<double>(p.random), p.color_index);
    text += buf;
    first = false;
  }
  text += first ? "]}\n" : "\n]}\n";
  std::string error;
  if (!WriteFileSafely(path, text.data(), text.size(), error)) return Fail(error);
  Note("wrote %s (%zu light points on the %dx%d detection copy)\n", path.c_str(), points.size(), width, height);
  return 0;
}

}  // namespace KorvaneTool
