#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "ImageIO.h"
#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

// A dark opaque photo with one white spot, as a PNG file in a scratch folder.
struct RaysFixture {
  static constexpr int kW = 64, kH = 48, kSpotX = 20, kSpotY = 24;
  std::string dir, photo;
  Image img;
  RaysFixture() : dir(Scratch()), img(kW, kH, 4) {
    for (int y = 0; y < kH; ++y)
      for (int x = 0; x < kW; ++x) {
        uint8_t* p = img.at(x, y);
        const bool spot = std::abs(x - kSpotX) <= 2 && std::abs(y - kSpotY) <= 2;
        p[0] = p[1] = p[2] = spot ? 255 : static_cast<uint8_t>(20 + (x + y) % 8);
        p[3] = 255;
      }
    photo = WriteImage(dir, "photo.png", img);
  }
  // The largest increase of any colour channel at (x, y).
  int Added(const Image& out, int x, int y) const {
    int most = 0;
    for (int c = 0; c < 3; ++c) most = std::max(most, out.at(x, y)[c] - img.at(x, y)[c]);
    return most;
  }
};

TEST(CliLightRays, StillsAddRaysOnlyDownstream) {
  RaysFixture f;
  // Directional rays to the right: light right of the spot, none left of it.
  const Image right = RunCliImage(
      "light-rays " + f.photo + " --mode directional --direction 0 --length 30 --softness 0 --brightness 1 --threshold 200 --strength 1", f.dir + "/r.png");
  ASSERT_EQ(right.width, RaysFixture::kW);
  ASSERT_EQ(right.height, RaysFixture::kH);
  EXPECT_GT(f.Added(right, RaysFixture::kSpotX + 12, RaysFixture::kSpotY), 10);
  EXPECT_EQ(f.Added(right, RaysFixture::kSpotX - 12, RaysFixture::kSpotY), 0);

  // Radial rays from a centre left of the spot stream out to its right too.
  const Image radial = RunCliImage(
      "light-rays " + f.photo + " --center 4,24 --length 30 --softness 0 --brightness 1 --threshold 200 --strength 1", f.dir + "/radial.png");
  EXPECT_GT(f.Added(radial, RaysFixture::kSpotX + 10, RaysFixture::kSpotY), 10);
  EXPECT_EQ(f.Added(radial, RaysFixture::kSpotX - 8, RaysFixture::kSpotY), 0);

  // --strength 0 and --length 0 both leave the photo as it was.
  EXPECT_EQ(RunCliImage("light-rays " + f.photo + " --strength 0", f.dir + "/s0.png").pixels, f.img.pixels);
  EXPECT_EQ(RunCliImage("light-rays " + f.photo + " --length 0", f.dir + "/l0.png").pixels, f.img.pixels);
}

TEST(CliLightRays, ALoopAnimatesTheBeams) {
  RaysFixture f;
  const CliResult r = RunCli("light-rays " + f.photo +
                             " --center 4,24 --frames 4 --sway --cycle-hue --saturation 0.5 -o " + f.dir +
                             "/frames");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(ReadImage(f.dir + "/frames/frame_0000.png").pixels, ReadImage(f.dir + "/frames/frame_0002.png").pixels);
  ASSERT_EQ(RunCli("light-rays " + f.photo + " --frames 3 --sway -q -o " + f.dir + "/loop.webp").output, "");
  EXPECT_TRUE(std::filesystem::exists(f.dir + "/loop.webp"));
  // A loop with --roi has frames of the roi's size.
  ASSERT_EQ(RunCli("light-rays " + f.photo + " --frames 2 --roi 10,20,50,30 -q -o " + f.dir + "/part").exit_code, 0);
  const Image part = ReadImage(f.dir + "/part/frame_0001.png");
  EXPECT_EQ(part.width, 40);
  EXPECT_EQ(part.height, 10);
}

TEST(CliLightRays, BadSettingsFailWithOneLineAndNoOutput) {
  RaysFixture f;
  const std::string out = f.dir + "/o.png";
  // Beyond what this photo allows: a failure (1) that names the limit.
  ExpectFailure("light-rays " + f.photo + " --length 65 -o " + out, "64 pixels", out);
  ExpectFailure("light-rays " + f.photo + " --softness 3 -o " + out, "--softness 3", out);
}

}  // namespace
