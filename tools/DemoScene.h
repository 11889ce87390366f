// The scene `korvane demo` renders when a person has no photo at hand: a
// lighthouse on a rock in front of the sea, a sunset sky with clouds, a
// distant shore with small bright lights, and everything the effects need
// beside the photo (depth guide, still-region mask, flow lines).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ImageIO.h"

namespace KorvaneTool {

class Engine;

struct DemoFlow {
  int type;  // 0 stroke, 1 path, 2 anchor
  std::vector<std::pair<float, float>> points;
};

struct DemoScene {
  Image photo;          // BGRA
  Image depth;          // gray guide: larger is nearer
  Image still;          // gray: non-zero marks what must not move (the lighthouse)
  Image subject;        // gray: the lighthouse alone, without its rock (what crumbles)
  int subject_depth = 0;  // guide value of the lighthouse
  std::vector<DemoFlow> flows;  // sea and clouds drift to the right
};

DemoScene MakeDemoScene(int width = 960, int height = 640);

struct DemoContext {
  const DemoScene& scene;
  Engine& engine;
  std::string out_dir;
  int files_written = 0;

  // out_dir/name.
  std::string Path(const std::string& name) const;
  // Writes `img` as out_dir/name and prints the path with the render time.
  int Save(const std::string& name, const Image& img, double render_ms);
  // Prints a file the step wrote itself.
  void Report(const std::string& path, double render_ms);
};

}  // namespace KorvaneTool
