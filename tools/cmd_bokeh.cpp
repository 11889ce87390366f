// korvane bokeh: its step of the demo (the command itself is the front-end
// table's, run by CommandRunner).
#include "Command.h"

namespace KorvaneTool {
namespace {

// The demo's distant shore lights become discs behind the sharp lighthouse.
RegisterDemoStep demo(70, "bokeh: the shore lights as twinkling discs", [](DemoContext& ctx) {
  KorvaneFrontend::Inputs in;
  in.images["guide"] = ctx.scene.depth.View();
  std::unique_ptr<KorvaneFrontend::OptionValues> values;
  std::unique_ptr<KorvaneFrontend::Session> session;
  const Settings settings = {{"shape", "hexagon"}, {"amount", "1"},  {"focus", std::to_string(ctx.scene.subject_depth)},
                             {"range", "10"},      {"twinkle", "1"}, {"frames", "24"}};
  if (int rc = ctx.Open("bokeh", settings, in, values, session)) return rc;
  if (int rc = ctx.SaveFrame(*session, *values, 12, 24, "bokeh.png")) return rc;
  return ctx.SaveLoop(*session, *values, "bokeh.webp");
});

}  // namespace
}  // namespace KorvaneTool
