// korvane glitch: the labelled sheet of all eight types, and its step of the
// demo (the command itself is the front-end table's, run by CommandRunner).
#include <vector>

#include "Command.h"
#include "SheetLayout.h"
#include "StillOrLoop.h"
#include "ToolSupport.h"

namespace KorvaneTool {
namespace {

using KorvaneFrontend::OptionValues;

const char* const kTypeNames[8] = {
    "0 blue/green split", "1 blue vs green+red", "2 green/red split",  "3 green vs blue+red",
    "4 red vs blue+green", "5 blue/red split",   "6 three on a circle", "7 blue/red opposed",
};

// Every type of the photo shrunk to the tile width, labelled.
int TypeSheet(const OptionValues& values, const Image& full, const KorvaneFrontend::Inputs& inputs,
              KorvaneFrontend::Engine& engine, Image& sheet, std::string& summary, double* ms) {
  const Image photo = SheetPhoto(full, static_cast<int>(values.Whole("tile-width")));
  const int columns = static_cast<int>(values.Whole("columns"));
  if (int rc = CheckSheetSize(photo, 8, columns)) return rc;
  std::unique_ptr<KorvaneFrontend::Session> session;
  if (int rc = Report(KorvaneFrontend::OpenSession(engine, values, photo.View(), inputs, session))) return rc;
  OptionValues v = values;
  std::vector<Image> tiles(8);
  Progress bar("types", 8);
  for (int type = 0; type < 8; ++type) {
    bar.Step(type);
    v.SetNumber("type", type);
    if (int rc = RenderFrame(*session, v, 0, 1, tiles[type], ms)) return rc;
  }
  sheet = MakeSheet(tiles, std::vector<std::string>(kTypeNames, kTypeNames + 8), columns);
  if (sheet.width == 0) return Fail("cannot lay out the sheet of all 8 types");
  summary = "all 8 types";
  return 0;
}

RegisterHooks hooks("glitch", CommandHooks{"type-sheet", TypeSheet});

// The demo shows the two kinds: a straight split and the three-way circle.
RegisterDemoStep demo(40, "glitch: colour-channel split", [](DemoContext& ctx) {
  if (int rc = ctx.Render("glitch", {{"shift-x", "40"}, {"shift-y", "10"}}, {}, "glitch-split.png")) return rc;
  return ctx.Render("glitch", {{"type", "6"}, {"radius", "50"}, {"rotation", "36"}}, {}, "glitch-circle.png");
});

}  // namespace
}  // namespace KorvaneTool
