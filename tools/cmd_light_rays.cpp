// korvane light-rays: its step of the demo (the command itself is the
// front-end table's, run by CommandRunner).
#include "Command.h"
#include "frontend/OptionDef.h"

namespace KorvaneTool {
namespace {

// The sunset's sun sends radial rays through the sky, still and as a loop of
// swaying beams.
RegisterDemoStep demo(50, "light-rays: rays from the sunset's sun", [](DemoContext& ctx) {
  using KorvaneFrontend::NumberText;
  const Image& photo = ctx.scene.photo;
  // Only the sun and the sky around it shine, not the lighthouse's white bands.
  const Settings sun = {
      {"center", std::to_string(static_cast<int>(0.26f * photo.width)) + "," +
                     std::to_string(static_cast<int>(0.49f * photo.height))},
      {"radius", NumberText(0.1f * photo.width)},
      {"threshold", "200"},
      {"length", NumberText(0.4f * photo.width)},
      {"brightness", "0.35"}};
  if (int rc = ctx.Render("light-rays", sun, {}, "light-rays-sun.png")) return rc;
  Settings loop = sun;
  loop.insert(loop.end(), {{"frames", "12"}, {"fps", "12"}, {"quality", "92"}, {"sway", "1"}});
  return ctx.Render("light-rays", loop, {}, "light-rays.webp");
});

}  // namespace
}  // namespace KorvaneTool
