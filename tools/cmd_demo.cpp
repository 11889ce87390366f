// korvane demo: renders every effect of the library on a generated scene.
#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "Command.h"
#include "Options.h"
#include "ToolSupport.h"

namespace KorvaneTool {

std::vector<CommandInfo>& Commands() {
  static std::vector<CommandInfo> commands;
  return commands;
}

std::vector<DemoStep>& DemoSteps() {
  static std::vector<DemoStep> steps;
  return steps;
}

namespace {

struct DemoOptions {
  std::string out_dir = "korvane-demo";
  int width = 960;
  int height = 640;
};

int RunDemo(const DemoOptions& opt) {
  std::error_code ec;
  std::filesystem::create_directories(opt.out_dir, ec);
  if (ec) return Fail("cannot create " + opt.out_dir + ": " + ec.message());
  Engine engine;
  if (!engine.ok()) return Fail("cannot create the engine");

  std::printf("Rendering the demo scene (%dx%d) into %s\n", opt.width, opt.height, opt.out_dir.c_str());
  const DemoScene scene = MakeDemoScene(opt.width, opt.height);
  DemoContext ctx{scene, engine, opt.out_dir};
  if (int rc = ctx.Save("scene.png", scene.photo, -1)) return rc;
  if (int rc = ctx.Save("scene-depth.png", scene.depth, -1)) return rc;
  if (int rc = ctx.Save("scene-still.png", scene.still, -1)) return rc;

  auto steps = DemoSteps();
  std::sort(steps.begin(), steps.end(), [](const DemoStep& a, const DemoStep& b) { return a.order < b.order; });
  for (const DemoStep& step : steps) {
    std::printf("%s\n", step.name.c_str());
    if (int rc = step.run(ctx)) return rc;
  }
  std::printf("%d files written to %s\n", ctx.files_written, opt.out_dir.c_str());
  return 0;
}

RegisterCommand reg("demo", "Render every effect on a generated scene (needs no input)", [](CLI::App& sub) {
  auto opt = std::make_shared<DemoOptions>();
  OptionTable t(sub);
  t.Text("-o,--output", opt->out_dir, "Folder to write into (created if missing)");
  t.Number("--width", opt->width, 64, 8192, "pixels", "Scene width");
  t.Number("--height", opt->height, 64, 8192, "pixels", "Scene height");
  return std::function<int()>([opt] { return RunDemo(*opt); });
});

}  // namespace
}  // namespace KorvaneTool
