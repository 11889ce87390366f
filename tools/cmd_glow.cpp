// korvane glow: the labelled sheet of all 29 blend modes, and its step of the
// demo (the command itself is the front-end table's, run by CommandRunner).
#include <vector>

#include "Command.h"
#include "SheetLayout.h"
#include "StillOrLoop.h"
#include "ToolSupport.h"

namespace KorvaneTool {
namespace {

using KorvaneFrontend::OptionValues;

// A gray image shrunk to `width` as the photo is.
Image ShrinkGray(const KorvaneFrontend::ImageView& mask, int width) {
  Image m4(mask.width, mask.height, 4);
  for (int y = 0; y < mask.height; ++y)
    for (int x = 0; x < mask.width; ++x) std::fill_n(m4.at(x, y), 4, *mask.At(x, y));
  m4 = Image(ScaleToWidth(m4, width));
  Image gray(m4.width, m4.height, 1);
  for (size_t i = 0; i < gray.pixels.size(); ++i) gray.pixels[i] = m4.pixels[i * 4];
  return gray;
}

// Every mode on the photo shrunk to the tile width, labelled. The mask
// shrinks with it; the radius is for the full photo, so it shrinks too.
int BlendSheet(const OptionValues& values, const Image& full, const KorvaneFrontend::Inputs& inputs,
              KorvaneFrontend::Engine& engine, Image& sheet, std::string& summary, double* ms) {
  if (values.Has("roi")) return Usage("--roi and --blend-sheet cannot be used together");
  const int tile_width = static_cast<int>(values.Whole("tile-width")), columns = static_cast<int>(values.Whole("columns"));
  OptionValues v = values;
  KorvaneFrontend::Inputs small_inputs = inputs;
  Image small_mask;
  const Image photo = SheetPhoto(full, tile_width);
  if (full.width > tile_width) {
    if (values.Has("radius")) {
      v.SetNumber("radius", static_cast<float>(values.Number("radius")) * static_cast<float>(tile_width) /
                                static_cast<float>(full.width));
    }
    const auto mask = inputs.images.find("mask");
    if (mask != inputs.images.end()) {
      small_mask = ShrinkGray(mask->second, tile_width);
      small_inputs.images["mask"] = small_mask.View();
    }
  }
  if (int rc = CheckSheetSize(photo, 29, columns)) return rc;
  std::unique_ptr<KorvaneFrontend::Session> session;
  if (int rc = Report(KorvaneFrontend::OpenSession(engine, v, photo.View(), small_inputs, session))) return rc;
  const auto& modes = values.cmd().Find("blend")->choices;
  std::vector<Image> tiles(modes.size());
  std::vector<std::string> labels;
  Progress bar("blend modes", static_cast<int>(modes.size()));
  for (size_t m = 0; m < modes.size(); ++m) {
    bar.Step(static_cast<int>(m));
    v.SetNumber("blend", static_cast<double>(m));
    if (int rc = RenderFrame(*session, v, 0, 1, tiles[m], ms)) return rc;
    labels.push_back(std::to_string(m) + " " + modes[m]);
  }
  sheet = MakeSheet(tiles, labels, columns);
  if (sheet.width == 0) return Fail("cannot lay out the sheet of all 29 blend modes");
  summary = "all 29 blend modes";
  return 0;
}

RegisterHooks hooks("glow", CommandHooks{"blend-sheet", BlendSheet});

// The sunset scene's sun, glitter and shore lights bloom, once in screen and
// once in a warm tinted addition.
RegisterDemoStep demo(60, "glow: blooming highlights", [](DemoContext& ctx) {
  if (int rc = ctx.Render("glow", {{"intensity", "0.45"}, {"threshold", "170"}}, {}, "glow-screen.png")) return rc;
  return ctx.Render("glow",
                    {{"intensity", "0.3"}, {"threshold", "190"}, {"tint", "0.5"}, {"hue", "0.08"},
                     {"blend", "addition"}},
                    {}, "glow-warm-addition.png");
});

}  // namespace
}  // namespace KorvaneTool
