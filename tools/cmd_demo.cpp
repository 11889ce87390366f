// korvane demo: renders every effect of the library on a generated scene.
#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "Command.h"
#include "ToolSupport.h"

namespace KorvaneTool {

std::vector<ToolCommand>& ToolCommands() {
  static std::vector<ToolCommand> commands;
  return commands;
}

std::map<std::string, CommandHooks>& Hooks() {
  static std::map<std::string, CommandHooks> hooks;
  return hooks;
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
  KorvaneFrontend::Engine engine;
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
  sub.add_option("-o,--output", opt->out_dir, "Folder to write into (created if missing) [default korvane-demo]");
  sub.add_option("--width", opt->width, "Scene width [64..8192 pixels, default 960]")->check(CLI::Range(64, 8192));
  sub.add_option("--height", opt->height, "Scene height [64..8192 pixels, default 640]")->check(CLI::Range(64, 8192));
  return std::function<int()>([opt] { return RunDemo(*opt); });
});

}  // namespace
}  // namespace KorvaneTool
