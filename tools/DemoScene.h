// The scene `korvane demo` renders when a person has no photo at hand: a
// lighthouse on a rock in front of the sea, a sunset sky with clouds, a
// distant shore with small bright lights, and everything the effects need
// beside the photo (depth guide, still-region mask, flow lines).
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ImageIO.h"
#include "frontend/Session.h"

namespace KorvaneTool {

struct DemoScene {
  Image photo;          // BGRA
  Image depth;          // gray guide: larger is nearer
  Image still;          // gray: non-zero marks what must not move (the lighthouse)
  Image subject;        // gray: the lighthouse alone, without its rock (what crumbles)
  int subject_depth = 0;  // guide value of the lighthouse
  std::vector<KorvaneFrontend::FlowLine> flows;  // sea and clouds drift to the right
};

DemoScene MakeDemoScene(int width = 960, int height = 640);

// Option values by name, as they would be typed: {{"level", "100"}, ...}.
using Settings = std::vector<std::pair<std::string, std::string>>;

struct DemoContext {
  const DemoScene& scene;
  KorvaneFrontend::Engine& engine;
  std::string out_dir;
  int files_written = 0;

  // out_dir/name.
  std::string Path(const std::string& name) const;
  // Writes `img` as out_dir/name and prints the path with the render time.
  int Save(const std::string& name, const Image& img, double render_ms);
  // Prints a file the step wrote itself.
  void Report(const std::string& path, double render_ms);

  // `command`'s values with `settings`, and a session of them on the scene's
  // photo with `inputs`. 0 or an exit code.
  int Open(const std::string& command, const Settings& settings, const KorvaneFrontend::Inputs& inputs,
           std::unique_ptr<KorvaneFrontend::OptionValues>& values, std::unique_ptr<KorvaneFrontend::Session>& session);
  // Renders frame `index` of `count` and saves it as out_dir/name.
  int SaveFrame(KorvaneFrontend::Session& session, const KorvaneFrontend::OptionValues& values, int index, int count,
                const std::string& name);
  // Writes the loop of the values' --frames at their --fps and --quality
  // (80 when not set) as out_dir/name.
  int SaveLoop(KorvaneFrontend::Session& session, const KorvaneFrontend::OptionValues& values, const std::string& name);
  // Both for one setting: a still when there are no frames, else a loop.
  int Render(const std::string& command, const Settings& settings, const KorvaneFrontend::Inputs& inputs,
             const std::string& name);
};

}  // namespace KorvaneTool
