// korvane animate: its step of the demo (the command itself is the
// front-end table's, run by CommandRunner).
#include <cmath>

#include "Command.h"
#include "ToolSupport.h"

namespace KorvaneTool {
namespace {

// The demo's sea and clouds drift past the still lighthouse.
RegisterDemoStep demo(80, "animate: the sea and clouds in a seamless loop", [](DemoContext& ctx) {
  KorvaneFrontend::Inputs in;
  in.flows = ctx.scene.flows;
  // The sun sits between the drifting clouds and the anchored shore; a ring
  // of anchors keeps it round instead of cross-fading two displaced suns.
  const float w = static_cast<float>(ctx.scene.photo.width), h = static_cast<float>(ctx.scene.photo.height);
  const float sun_x = 0.26f * w, sun_y = 0.49f * h, ring = 0.08f * h;
  for (int i = 0; i < 8; ++i) {
    const float a = static_cast<float>(i) * 0.785398f;
    in.flows.push_back({Korvane::FLOW_ANCHOR, {sun_x + ring * std::cos(a), sun_y + ring * std::sin(a)}});
  }
  // The flow file and the still mask this loop uses, for a newcomer to copy.
  const std::string flows_path = ctx.Path("animation-flows.json");
  const std::string text = KorvaneFrontend::FlowsJson(in.flows);
  std::string error;
  if (!WriteFileSafely(flows_path, text.data(), text.size(), error)) return Fail(error);
  ctx.Report(flows_path, -1);
  in.images["still"] = ctx.scene.still.View();
  for (const char* name : {"animation.webp", "animation.gif"}) {
    if (int rc = ctx.Render("animate", {{"frames", "24"}, {"fps", "24"}}, in, name)) return rc;
  }
  return 0;
});

}  // namespace
}  // namespace KorvaneTool
