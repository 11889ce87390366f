// One vocabulary across commands: settings that would do nothing are
// refused, old names point at new ones, units are converted where the
// records take them, and the README's table names every option.
#include <gtest/gtest.h>

#include "frontend/OptionDef.h"
#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

std::string WritePhoto(const std::string& dir) { return WriteImage(dir, "photo.png", DotsPhoto(48, 32)); }

}  // namespace

TEST(CliVocabulary, SettingsThatWouldDoNothingAndOldNamesAreUsageErrors) {
  const std::string dir = Scratch(), photo = WritePhoto(dir), out = dir + "/out.png";
  const struct {
    std::string args, message;
  } cases[] = {
      {"light-rays --direction 30", "--direction applies only with --mode directional"},
      {"light-rays --mode directional --radius 10", "--radius applies only with --mode radial"},
      {"light-rays --mode directional --lampshade 90,30,5", "--lampshade applies only with --mode radial"},
      {"glitch --rotation 30", "--rotation applies only with --type 6 or 7 (or --type-sheet)"},
      {"glitch --type 6 --shift-x 40", "--shift-x applies only with --type 0 to 5 (or --type-sheet)"},
      {"glow --hue 0.3", "--hue applies only with --tint above 0"},
      {"glow --columns 3", "--columns applies only with --blend-sheet"},
      {"bokeh --stretch-guide", "--stretch-guide applies only with a --guide"},
      {"sparkle --manual-shape cross", "--manual-shape applies only with --manual glints"},
      {"bokeh --twinkle --frames 1", "--twinkle needs --frames 2 or more"},
      {"sparkle --spin", "a loop of 48 frames is written to NAME.webp, NAME.gif or a folder"},
      {"bokeh --shape hexagonn",
       "--shape: unknown shape 'hexagonn'; choose one of: circle, hexagon, octagon, heart, star or an image file"},
      {"sparkle --manual-shape str6", "--manual-shape: unknown shape 'str6'; choose one of: star4, star6"},
      {"light-rays --animate-rays", "light-rays: --animate-rays is now --sway"},
      {"light-rays --level 0.5", "light-rays: --level is now --brightness"},
      {"bokeh --hue-offset 0.2", "bokeh: --hue-offset is now --hue-shift (in turns)"},
      {"glow --mode screen", "glow: --mode is now --blend"},
      {"glitch --angle 20", "glitch: --angle is now --rotation (in degrees)"},
  };
  for (const auto& c : cases) {
    const std::string command = c.args.substr(0, c.args.find(' '));
    const std::string args = command + " " + photo + c.args.substr(command.size()) + " -o " + out;
    SCOPED_TRACE(args);
    ExpectFailure(args, c.message, out, 2);
  }
  // A front end that passes every value (GIMP's procedures) gives the
  // defaults of settings that take no effect: those are fine.
  EXPECT_EQ(RunCli("light-rays " + photo + " --direction 270 --radius 0 --strength 1 -q -o " + out).exit_code, 0);
  EXPECT_EQ(RunCli("glitch " + photo + " --type 6 --shift-x 30 --rotation 0 -q -o " + out).exit_code, 0);
}

TEST(CliVocabulary, TurnsAndDegreesWrapWhereTheRecordsTakeThem) {
  const std::string dir = Scratch(), photo = WritePhoto(dir);
  // Pairs of settings that name the same turn, rendered alike.
  const struct {
    std::string a, b;
  } same[] = {
      {"light-rays --hue-shift 0.75 --saturation 0.5", "light-rays --hue-shift -0.25 --saturation 0.5"},
      {"light-rays --mode directional --direction -90", "light-rays --mode directional --direction 270"},
      {"light-rays --lampshade -45,60,5", "light-rays --lampshade 315,60,5"},
      {"bokeh --amount 1 --hue-shift 1", "bokeh --amount 1"},
      {"glitch --type 6 --rotation 360", "glitch --type 6"},
      {"glitch --type 7 --rotation -180", "glitch --type 7 --rotation 180"},
  };
  for (const auto& c : same) {
    SCOPED_TRACE(c.a);
    auto render = [&](const std::string& args, const std::string& name) {
      const std::string command = args.substr(0, args.find(' '));
      return RunCliImage(command + " " + photo + args.substr(command.size()), dir + "/" + name);
    };
    const Image a = render(c.a, "a.png"), b = render(c.b, "b.png");
    ASSERT_FALSE(a.pixels.empty());
    EXPECT_EQ(a.pixels, b.pixels);
  }
}

TEST(CliVocabulary, TheReadmeTableNamesEveryOption) {
  const std::string readme = ReadAll(std::string(KORVANE_SOURCE_DIR) + "/README.md");
  const size_t start = readme.find("### One vocabulary");
  ASSERT_NE(start, std::string::npos);
  const std::string table = readme.substr(start, readme.find("\n#", start + 1) - start);
  for (const KorvaneFrontend::CommandDef& c : KorvaneFrontend::Commands()) {
    for (const KorvaneFrontend::OptionDef& o : c.options) {
      if (o.kind == KorvaneFrontend::OptionKind::kPhotos) continue;
      EXPECT_NE(table.find("`--" + o.name + "`"), std::string::npos) << c.name << " --" << o.name;
    }
  }
}
