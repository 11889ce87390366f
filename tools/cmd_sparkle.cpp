// korvane sparkle: its step of the demo (the command itself is the
// front-end table's, run by CommandRunner).
#include "Command.h"
#include "StillOrLoop.h"

namespace KorvaneTool {
namespace {

// The light a frame adds around (x, y): the sum of its green channel there.
long LightAround(const Image& frame, int cx, int cy, int r) {
  long sum = 0;
  for (int y = std::max(0, cy - r); y < std::min(frame.height, cy + r); ++y)
    for (int x = std::max(0, cx - r); x < std::min(frame.width, cx + r); ++x) sum += frame.at(x, y)[1];
  return sum;
}

// The sun's glitter on the sea twinkles, and a large star flares on the sun.
RegisterDemoStep demo(75, "sparkle: glints on the sea", [](DemoContext& ctx) {
  const Image& photo = ctx.scene.photo;
  const float w = static_cast<float>(photo.width), h = static_cast<float>(photo.height);
  KorvaneFrontend::Inputs in;
  in.sparkles = {{0.26 * w, 0.49 * h, 2.5}};
  std::unique_ptr<KorvaneFrontend::OptionValues> values;
  std::unique_ptr<KorvaneFrontend::Session> session;
  const Settings settings = {{"amount", "0.9"}, {"size", "2.5"},   {"spin", "1"}, {"twinkle", "1"},
                             {"frames", "24"},  {"manual-shape", "star8"}};
  if (int rc = ctx.Open("sparkle", settings, in, values, session)) return rc;
  // The still shows the frame in which the sun's star shines most: the frame
  // where its twinkle peaks, found by looking.
  int best = 0;
  long most = -1;
  for (int f = 0; f < 24; ++f) {
    Image frame;
    if (int rc = RenderFrame(*session, *values, f, 24, frame, nullptr)) return rc;
    const long light = LightAround(frame, static_cast<int>(0.26f * w), static_cast<int>(0.49f * h),
                                   std::max(2, photo.height / 20));
    if (light > most) most = light, best = f;
  }
  if (int rc = ctx.SaveFrame(*session, *values, best, 24, "sparkle.png")) return rc;
  return ctx.SaveLoop(*session, *values, "sparkle.webp");
});

}  // namespace
}  // namespace KorvaneTool
