// korvane disperse: its step of the demo (the command itself is the
// front-end table's, run by CommandRunner).
#include "Command.h"

namespace KorvaneTool {
namespace {

// The demo's lighthouse crumbles into the evening wind and comes back.
RegisterDemoStep demo(90, "disperse: the lighthouse crumbles into the wind", [](DemoContext& ctx) {
  // The mask this clip uses, for a newcomer to try the command with.
  if (int rc = ctx.Save("scene-subject.png", ctx.scene.subject, -1)) return rc;
  KorvaneFrontend::Inputs in;
  in.images["mask"] = ctx.scene.subject.View();
  Settings settings = {{"direction", "10"}, {"spread", "50"},   {"distance", "0.35"}, {"size", "1.5"},
                       {"density", "0.7"},  {"width", "0.35"},  {"turbulence", "0.4"}};
  Settings loop = settings;
  loop.insert(loop.end(), {{"frames", "48"}, {"fps", "24"}, {"loop", "1"}});
  if (int rc = ctx.Render("disperse", loop, in, "dispersion.webp")) return rc;
  // One still in the middle of the crumble, for pages that show no animation.
  std::unique_ptr<KorvaneFrontend::OptionValues> values;
  std::unique_ptr<KorvaneFrontend::Session> session;
  if (int rc = ctx.Open("disperse", settings, in, values, session)) return rc;
  return ctx.SaveFrame(*session, *values, 4, 9, "dispersion.png");
});

}  // namespace
}  // namespace KorvaneTool
