// Each command's own options, files and messages through the korvane
// executable. What every command shares is checked in CliOutputs and
// CliErrors; the pixels themselves are the effects' own tests.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "SheetLayout.h"
#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;
namespace fs = std::filesystem;

namespace {

TEST(CliGlitch, RendersOneTypeWithTheLibrarysScaling) {
  const std::string dir = Scratch();
  const Image photo = NoisePhoto(100, 6, 1);
  const std::string in = WriteImage(dir, "photo.png", photo);

  // No shift reproduces the photo, alpha included.
  EXPECT_EQ(RunCliImage("glitch " + in + " --type 0 --shift-x 0", dir + "/same.png").pixels, photo.pixels);

  // --shift-x 100 on 100 px is 10 px: green moves right, blue left, red stays.
  const Image out = RunCliImage("glitch " + in + " --type 0 --shift-x 100", dir + "/split.png");
  ASSERT_EQ(out.width, 100);
  for (int x = 10; x < 90; ++x) {
    EXPECT_EQ(out.at(x, 3)[1], photo.at(x - 10, 3)[1]);
    EXPECT_EQ(out.at(x, 3)[0], photo.at(x + 10, 3)[0]);
    EXPECT_EQ(out.at(x, 3)[2], photo.at(x, 3)[2]);
  }
}

TEST(SheetLayout, SheetHoldsEveryTileUntouched) {
  std::vector<Image> tiles;
  for (int i = 0; i < 5; ++i) {
    Image t(30, 20, 4);
    for (size_t p = 0; p < t.pixels.size(); p += 4) t.pixels[p] = static_cast<uint8_t>(40 * i + 10), t.pixels[p + 3] = 255;
    tiles.push_back(t);
  }
  const Image sheet = MakeSheet(tiles, {"zero", "one", "two"}, 2);
  ASSERT_GT(sheet.width, 0);
  std::map<uint32_t, int> counts;
  for (size_t p = 0; p < sheet.pixels.size(); p += 4)
    ++counts[sheet.pixels[p] | sheet.pixels[p + 1] << 8 | sheet.pixels[p + 2] << 16 | uint32_t{sheet.pixels[p + 3]} << 24];
  for (int i = 0; i < 5; ++i) EXPECT_EQ(counts[0xFF000000u | (40 * i + 10)], 30 * 20) << i;

  EXPECT_EQ(MakeSheet({}, {}, 3).width, 0);
  tiles.push_back(Image(31, 20, 4));
  EXPECT_EQ(MakeSheet(tiles, {}, 3).width, 0);  // tiles of another size
}

TEST(SheetLayout, SizesAreBoundedAndNeverOverflow) {
  // Ten million source pixels into one: the sum passes 2^31.
  const Image wide = ScaleToWidth(Image(100000, 100, 4, 255), 1);
  ASSERT_EQ(wide.width, 1);
  EXPECT_EQ(wide.at(0, 0)[0], 255);
  // The sheet of a very tall photo is refused by its size, before any tile is made.
  int64_t w = 0, h = 0;
  SheetSize(240, 2000000000, 29, 6, w, h);
  EXPECT_GT(h, int64_t{2000000000} * 5);
  EXPECT_NE(CheckSheetSize(Image(240, 60000, 1), 8, 4), 0);
  EXPECT_EQ(CheckSheetSize(Image(240, 160, 1), 8, 4), 0);
  // The glitch sheet is made of 240-pixel tiles by default, whatever the photo.
  const std::string dir = KorvaneToolTest::Scratch();
  const std::string in = WriteImage(dir, "wide.png", NoisePhoto(1200, 40, 9));
  ASSERT_EQ(RunCli("glitch " + in + " --type-sheet --columns 8 -o " + dir + "/s.png").exit_code, 0);
  int64_t sw = 0, sh = 0;
  SheetSize(240, 8, 8, 8, sw, sh);
  EXPECT_EQ(ReadImage(dir + "/s.png").width, sw);
}

TEST(SheetLayout, LabelsScaleAndClipAtTheImageEdges) {
  Image img(20, 10, 4, 0);
  // Partly outside on every side: only pixels inside change, nothing crashes.
  DrawLabel(img, -7, -3, "Wide label ~\x01", 2, Colour{255, 255, 255, 255});
  DrawLabel(img, 15, 8, "X", 4, Colour{255, 255, 255, 255});
  DrawLabel(img, 1000, 1000, "far", 1, Colour{255, 255, 255, 255});
  int lit = 0;
  for (size_t p = 0; p < img.pixels.size(); p += 4) lit += img.pixels[p] == 255;
  EXPECT_GT(lit, 0);
  // A lone 'I' at scale 1 lights its 7-row stem in the middle column.
  Image one(5, 7, 1, 0);
  DrawLabel(one, 0, 0, "I", 1, Colour{200, 200, 200, 255});
  for (int y = 0; y < 7; ++y) EXPECT_EQ(one.at(2, y)[0], 200) << y;
}

// A dark photo 320 x 200 with bright dots, and a guide that keeps the left
// quarter in focus.
void WriteLights(const std::string& dir) {
  const int w = 320, h = 200;
  Image photo(w, h, 4), guide(w, h, 1);
  std::mt19937 rng(4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = photo.at(x, y);
      p[0] = static_cast<uint8_t>(30 + rng() % 4), p[1] = 20, p[2] = 25, p[3] = 255;
      *guide.at(x, y) = x < w / 4 ? 230 : 0;
    }
  for (auto [cx, cy] : {std::pair<int, int>{100, 50}, {200, 120}, {280, 60}, {150, 170}})
    for (int y = cy - 1; y <= cy + 1; ++y)
      for (int x = cx - 1; x <= cx + 1; ++x) {
        uint8_t* p = photo.at(x, y);
        p[0] = 200, p[1] = 240, p[2] = 255;
      }
  WriteImage(dir, "photo.png", photo);
  WriteImage(dir, "depth.png", guide);
}

TEST(CliBokeh, PointsJsonListsTheDetectedPoints) {
  const std::string dir = Scratch();
  WriteLights(dir);
  // Every point lights up at some frame of a twinkling loop.
  const CliResult r =
      RunCli("bokeh " + dir + "/photo.png --guide " + dir + "/depth.png --amount 1 --twinkle --frames 24 --points-json " +
             dir + "/points.json");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  const auto doc = nlohmann::json::parse(ReadAll(dir + "/points.json"));
  EXPECT_EQ(doc["width"], 640);
  EXPECT_EQ(doc["height"], 400);
  ASSERT_GE(doc["points"].size(), 4u);
  // Positions on the detection copy: the dot at 200,120 of the photo is at 400,240.
  bool found = false;
  for (const auto& p : doc["points"]) found = found || (std::abs(p["x"].get<int>() - 400) <= 2 && std::abs(p["y"].get<int>() - 240) <= 2);
  EXPECT_TRUE(found);
  EXPECT_FALSE(fs::exists(dir + "/out.png"));
}

TEST(CliBokeh, StillOneFrameAnimationsAndOverlay) {
  const std::string dir = Scratch();
  WriteLights(dir);
  const Image still =
      RunCliImage("bokeh " + dir + "/photo.png --guide " + dir + "/depth.png --amount 1 --shape hexagon --color random",
                  dir + "/still.png");
  ASSERT_EQ(still.width, 320);
  ASSERT_EQ(still.height, 200);

  // One frame into a GIF is a one-frame animation.
  const CliResult gif = RunCli("bokeh " + dir + "/photo.png -o " + dir + "/one.gif");
  ASSERT_EQ(gif.exit_code, 0) << gif.output;
  EXPECT_GT(fs::file_size(dir + "/one.gif"), 0u);
  EXPECT_NE(gif.output.find("GIF"), std::string::npos) << gif.output;

  const CliResult overlay = RunCli("bokeh " + dir + "/photo.png --points-overlay " + dir + "/rings.png");
  ASSERT_EQ(overlay.exit_code, 0) << overlay.output;
  EXPECT_EQ(ReadImage(dir + "/rings.png").width, 320);
}

// Without a guide the centre stays (nearly) sharp and the edges blur, as in
// focus-blur; the whole photo was background before.
TEST(CliBokeh, WithoutAGuideTheCentreStaysSharp) {
  const std::string dir = Scratch();
  const Image photo = NoisePhoto(80, 60, 5);
  const std::string in = WriteImage(dir, "photo.png", photo);
  const Image out = RunCliImage("bokeh " + in + " --amount 0", dir + "/out.png");
  ASSERT_EQ(out.width, 80);
  // Mean change of the green channel over a 10 x 10 square at (x0, y0).
  auto change = [&](int x0, int y0) {
    double sum = 0;
    for (int y = y0; y < y0 + 10; ++y)
      for (int x = x0; x < x0 + 10; ++x) sum += std::abs(out.at(x, y)[1] - photo.at(x, y)[1]);
    return sum / 100;
  };
  EXPECT_LT(change(35, 25), 10.0);
  EXPECT_GT(change(0, 0), 30.0);
}

TEST(CliSparkle, PlacedGlintsShineWhereTheFileSaysAndPointsAreListed) {
  const std::string dir = Scratch();
  const Image photo = DotsPhoto(120, 96);
  const std::string in = WriteImage(dir, "photo.png", photo);
  WriteFile(dir + "/pts.json", R"({"sparkles": [{"x": 36, "y": 60, "scale": 2}, {"x": 84, "y": 24}]})");

  // Only the placed glints (the detected ones at amount 0): light at each
  // point, nothing far from them.
  const Image out = RunCliImage("sparkle " + in + " --amount 0 --manual " + dir + "/pts.json --manual-shape cross",
                                dir + "/placed.png");
  ASSERT_EQ(out.width, 120);
  EXPECT_GT(out.at(36, 60)[1], 100);  // the photo is 20; each glint has its own fixed brightness
  EXPECT_GT(out.at(84, 24)[1], 100);
  EXPECT_EQ(out.at(110, 90)[1], photo.at(110, 90)[1]);

  // The detected points, in the form bokeh writes.
  const CliResult r = RunCli("sparkle " + in + " --points-json " + dir + "/points.json");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  const nlohmann::json doc = nlohmann::json::parse(ReadAll(dir + "/points.json"));
  EXPECT_EQ(doc["width"], 640);
  EXPECT_EQ(doc["height"], 512);
  ASSERT_GE(doc["points"].size(), 20u);  // 5 x 4 dots
  for (const char* key : {"x", "y", "phase", "random", "color"}) EXPECT_TRUE(doc["points"][0].contains(key)) << key;
}

TEST(CliSparkle, BadInputsFailWithAReason) {
  const std::string dir = Scratch();
  const std::string in = WriteImage(dir, "photo.png", DotsPhoto(40, 30));
  const std::string out = " -o " + dir + "/o.png";
  CliResult r;
  WriteFile(dir + "/bad.json", R"({"sparkles": [{"x": 3, "y": "a"}]})");
  r = RunCli("sparkle " + in + " --manual " + dir + "/bad.json" + out);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.output.find("sparkles[0]"), std::string::npos) << r.output;
  WriteFile(dir + "/big.json", R"({"sparkles": [{"x": 3, "y": 4, "scale": 7}]})");
  EXPECT_EQ(RunCli("sparkle " + in + " --manual " + dir + "/big.json" + out).exit_code, 1);
  // Positions far outside the photo are refused by name before they become
  // the library's floats.
  for (const std::string x : {"1e10", "1e300", "-0.5", "40"}) {
    WriteFile(dir + "/far.json", R"({"sparkles": [{"x": 3, "y": 4}, {"x": )" + x + R"(, "y": 4}]})");
    r = RunCli("sparkle " + in + " --manual " + dir + "/far.json" + out);
    EXPECT_EQ(r.exit_code, 1) << x;
    EXPECT_EQ(r.output.rfind("korvane: manual " + dir + "/far.json: sparkles[1] at ", 0), 0u) << r.output;
    EXPECT_NE(r.output.find("lies outside the 40x30 photo\n"), std::string::npos) << r.output;
  }
  WriteFile(dir + "/ok.json", R"({"sparkles": [{"x": 3, "y": 4}]})");
  r = RunCli("sparkle " + in + " --manual " + dir + "/ok.json --manual-shape " + in + out);  // 40 x 30 shape
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.output.find("200x200"), std::string::npos) << r.output;
  EXPECT_FALSE(fs::exists(dir + "/o.png"));
}

TEST(CliGlow, TheDefaultBlendIsNamed) {
  const std::string dir = Scratch();
  const Image photo = DotsPhoto(64, 48);
  const CliResult r =
      RunCli("glow " + WriteImage(dir, "photo.png", photo) + " --intensity 0.8 --radius 4 -o " + dir + "/glow.png");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("screen"), std::string::npos) << r.output;
  EXPECT_NE(ReadImage(dir + "/glow.png").pixels, photo.pixels);
}

TEST(CliGlow, RoiWritesJustThatRectangle) {
  const std::string dir = Scratch();
  const std::string in = WriteImage(dir, "photo.png", DotsPhoto(50, 40));
  ASSERT_EQ(RunCli("glow " + in + " -o " + dir + "/whole.png").exit_code, 0);
  const CliResult r = RunCli("glow " + in + " --roi 10,5,42,33 -o " + dir + "/part.png");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  const Image whole = ReadImage(dir + "/whole.png"), part = ReadImage(dir + "/part.png");
  ASSERT_EQ(part.width, 32);
  ASSERT_EQ(part.height, 28);
  // Where the SSE4.1 blend runs, the rectangle is exactly the crop of the whole render.
  if (RunCli("info").output.find("in use") != std::string::npos) {
    for (int y = 0; y < part.height; ++y)
      for (int x = 0; x < part.width; ++x)
        for (int c = 0; c < 4; ++c) ASSERT_EQ(part.at(x, y)[c], whole.at(x + 10, y + 5)[c]) << x << "," << y;
  }
  // A radius beyond what this photo allows is named with the limit.
  const CliResult e = RunCli("glow " + in + " --radius 7 -o " + dir + "/x.png");  // at most 50 / 8 = 6
  EXPECT_EQ(e.exit_code, 1);
  EXPECT_NE(e.output.find("--radius 7 is more than an eighth of this photo's longer side (6 pixels)"),
            std::string::npos) << e.output;
}

TEST(CliGlow, MaskDecidesWhereTheGlowComesFrom) {
  const std::string dir = Scratch();
  const std::string in = WriteImage(dir, "photo.png", DotsPhoto(48, 32));
  const std::string black = WriteImage(dir, "black.png", Image(48, 32, 1, 0));
  ASSERT_EQ(RunCli("glow " + in + " --mask " + black + " -o " + dir + "/masked.png").exit_code, 0);
  ASSERT_EQ(RunCli("glow " + in + " --threshold 255 -o " + dir + "/none.png").exit_code, 0);
  EXPECT_EQ(ReadImage(dir + "/masked.png").pixels, ReadImage(dir + "/none.png").pixels);
}

TEST(CliGlow, BlendSheetHasATileForEveryMode) {
  const std::string dir = Scratch();
  const std::string in = WriteImage(dir, "photo.png", DotsPhoto(120, 80));
  const CliResult r = RunCli("glow " + in + " --blend-sheet --tile-width 60 --columns 6 -o " + dir + "/sheet.png");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("all 29 blend modes"), std::string::npos) << r.output;
  // The same layout as 29 tiles of the shrunk photo (60 x 40) in six columns.
  const Image expected = MakeSheet(std::vector<Image>(29, Image(60, 40, 4)), {}, 6);
  const Image sheet = ReadImage(dir + "/sheet.png");
  EXPECT_EQ(sheet.width, expected.width);
  EXPECT_EQ(sheet.height, expected.height);
  EXPECT_EQ(RunCli("glow " + in + " --blend-sheet --roi 0,0,10,10 -o " + dir + "/s2.png").exit_code, 2);
}

TEST(CliFocusBlur, WithoutAGuideTheCentreStaysSharpAndJpegIsWritten) {
  const std::string dir = Scratch();
  WriteImage(dir, "photo.png", NoisePhoto(81, 61, 5));
  const CliResult r = RunCli("focus-blur " + dir + "/photo.png --level 100 --quality 95 -o " + dir + "/out.jpg");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("radial"), std::string::npos);
  EXPECT_NE(r.output.find("wrote"), std::string::npos);
  const Image out = ReadImage(dir + "/out.jpg");
  EXPECT_EQ(out.width, 81);
  EXPECT_EQ(out.height, 61);
  // Replacing an earlier output (not the input) is allowed.
  EXPECT_EQ(RunCli("focus-blur " + dir + "/photo.png -o " + dir + "/out.jpg").exit_code, 0);
}

TEST(CliDisperse, WritesFramesThatStartFromThePhotoAndLoops) {
  const Scene s;
  const Image photo = ReadImage(s.photo);
  const std::string run = "disperse " + s.photo + " --mask " + s.mask + " --frames ";
  ASSERT_EQ(RunCli(run + "6 --size 1 --density 1 -o " + s.dir + "/frames").exit_code, 0);
  EXPECT_EQ(ReadImage(s.dir + "/frames/frame_0000.png").pixels, photo.pixels);
  EXPECT_NE(ReadImage(s.dir + "/frames/frame_0003.png").pixels, photo.pixels);
  // The loop goes back the way it came: its last frame is its second.
  ASSERT_EQ(RunCli(run + "6 --loop -o " + s.dir + "/loop").exit_code, 0);
  EXPECT_EQ(ReadImage(s.dir + "/loop/frame_0005.png").pixels, ReadImage(s.dir + "/loop/frame_0001.png").pixels);
  // A single frame is still a clip: one PNG in the folder, the photo itself.
  ASSERT_EQ(RunCli(run + "1 -q -o " + s.dir + "/one").exit_code, 0);
  EXPECT_EQ(ReadImage(s.dir + "/one/frame_0000.png").pixels, photo.pixels);
  EXPECT_FALSE(fs::exists(s.dir + "/one/frame_0001.png"));
  ExpectFailure("disperse " + s.photo + " -o " + s.dir + "/o.webp", "--mask is required", s.dir + "/o.webp", 2);
}

// A dark opaque photo with one white 5 x 5 spot, for rays to stream from.
std::string WriteSpotPhoto(const std::string& dir) {
  Image img(64, 48, 4, 255);
  for (int y = 0; y < 48; ++y)
    for (int x = 0; x < 64; ++x) {
      const bool spot = std::abs(x - 20) <= 2 && std::abs(y - 24) <= 2;
      std::fill_n(img.at(x, y), 3, static_cast<uint8_t>(spot ? 255 : 20 + (x + y) % 8));
    }
  return WriteImage(dir, "photo.png", img);
}

TEST(CliLightRays, ALoopAnimatesTheBeams) {
  const std::string dir = Scratch(), photo = WriteSpotPhoto(dir);
  const CliResult r = RunCli("light-rays " + photo +
                             " --center 4,24 --frames 4 --sway --cycle-hue --saturation 0.5 -o " + dir +
                             "/frames");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(ReadImage(dir + "/frames/frame_0000.png").pixels, ReadImage(dir + "/frames/frame_0002.png").pixels);
  ASSERT_EQ(RunCli("light-rays " + photo + " --frames 3 --sway -q -o " + dir + "/loop.webp").output, "");
  EXPECT_TRUE(fs::exists(dir + "/loop.webp"));
  // A loop with --roi has frames of the roi's size.
  ASSERT_EQ(RunCli("light-rays " + photo + " --frames 2 --roi 10,20,50,30 -q -o " + dir + "/part").exit_code, 0);
  const Image part = ReadImage(dir + "/part/frame_0001.png");
  EXPECT_EQ(part.width, 40);
  EXPECT_EQ(part.height, 10);
}

TEST(CliLightRays, BadSettingsFailWithOneLineAndNoOutput) {
  const std::string dir = Scratch(), photo = WriteSpotPhoto(dir);
  const std::string out = dir + "/o.png";
  // Beyond what this photo allows: a failure (1) that names the limit.
  ExpectFailure("light-rays " + photo + " --length 65 -o " + out, "64 pixels", out);
  ExpectFailure("light-rays " + photo + " --softness 3 -o " + out, "--softness 3", out);
}

}  // namespace
