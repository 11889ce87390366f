#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

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

}  // namespace

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
  EXPECT_FALSE(std::filesystem::exists(dir + "/out.png"));
}

TEST(CliBokeh, StillOneFrameAnimationsAndOverlay) {
  const std::string dir = Scratch();
  WriteLights(dir);
  const Image photo = ReadImage(dir + "/photo.png");
  const Image still =
      RunCliImage("bokeh " + dir + "/photo.png --guide " + dir + "/depth.png --amount 1 --shape hexagon --color random",
                  dir + "/still.png");
  ASSERT_EQ(still.width, 320);
  ASSERT_EQ(still.height, 200);
  // Light is added near the dots.
  int brighter = 0;
  for (int y = 40; y < 60; ++y)
    for (int x = 90; x < 110; ++x) brighter += still.at(x, y)[1] > photo.at(x, y)[1] + 20;
  EXPECT_GT(brighter, 20);

  // One frame into a GIF is a one-frame animation.
  const CliResult gif = RunCli("bokeh " + dir + "/photo.png -o " + dir + "/one.gif");
  ASSERT_EQ(gif.exit_code, 0) << gif.output;
  EXPECT_GT(std::filesystem::file_size(dir + "/one.gif"), 0u);
  EXPECT_NE(gif.output.find("GIF"), std::string::npos) << gif.output;
  // And into a folder, a one-frame PNG sequence.
  ASSERT_EQ(RunCli("bokeh " + dir + "/photo.png -o " + dir + "/one").exit_code, 0);
  EXPECT_EQ(ReadImage(dir + "/one/frame_0000.png").width, 320);
  EXPECT_FALSE(std::filesystem::exists(dir + "/one/frame_0001.png"));

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
