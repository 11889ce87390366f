// korvane focus-blur: its step of the demo (the command itself is the
// front-end table's, run by CommandRunner).
#include "Command.h"

namespace KorvaneTool {
namespace {

// The demo focuses on the lighthouse: the sea and the sky melt away behind it.
RegisterDemoStep demo(10, "focus-blur: depth of field on the lighthouse", [](DemoContext& ctx) {
  KorvaneFrontend::Inputs in;
  in.images["guide"] = ctx.scene.depth.View();
  return ctx.Render("focus-blur", {{"level", "100"}, {"focus", std::to_string(ctx.scene.subject_depth)}, {"range", "10"}},
                    in, "focus-blur.png");
});

}  // namespace
}  // namespace KorvaneTool
