// --roi renders a rectangle of the result that equals the same rectangle of
// the whole render byte for byte, so tiles join without a seam: at the
// corners, along the edges and inside, for every command that has --roi.
#include <gtest/gtest.h>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

std::string WriteDots(const std::string& dir) { return WriteImage(dir, "dots.png", DotsPhoto(64, 48)); }

void ExpectCropOfWhole(const std::string& args, const std::string& dir) {
  const Image whole = RunCliImage(args, dir + "/whole.png");
  ASSERT_EQ(whole.width, 64);
  const int regions[][4] = {{0, 0, 20, 16},  {44, 32, 64, 48}, {0, 10, 64, 30},
                            {20, 0, 40, 48}, {10, 8, 50, 40},  {63, 47, 64, 48}};
  for (const auto& r : regions) {
    const std::string roi = std::to_string(r[0]) + "," + std::to_string(r[1]) + "," + std::to_string(r[2]) + "," +
                            std::to_string(r[3]);
    SCOPED_TRACE(args + " --roi " + roi);
    const Image part = RunCliImage(args + " --roi " + roi, dir + "/part.png");
    ASSERT_EQ(part.width, r[2] - r[0]);
    ASSERT_EQ(part.height, r[3] - r[1]);
    int differ = 0;
    for (int y = 0; y < part.height; ++y)
      for (int x = 0; x < part.width; ++x)
        for (int c = 0; c < 4; ++c) differ += part.at(x, y)[c] != whole.at(x + r[0], y + r[1])[c];
    EXPECT_EQ(differ, 0);
  }
}

}  // namespace

TEST(CliRegions, LightRaysRegionsAreCropsOfTheWhole) {
  const std::string dir = Scratch(), photo = WriteDots(dir);
  ExpectCropOfWhole("light-rays " + photo + " --mode directional --direction 30 --frames 6 --frame 2 --sway", dir);
}

// Discs and glints centred just outside a region are drawn where they reach
// into it (the library's REGION_SHAPES_REACHING, which --roi asks for).
TEST(CliRegions, BokehAndSparkleRegionsAreCropsOfTheWhole) {
  const std::string dir = Scratch(), photo = WriteDots(dir);
  ExpectCropOfWhole("bokeh " + photo + " --amount 1 --quality-mode 2 --twinkle --frames 4 --frame 1", dir);
  ExpectCropOfWhole("sparkle " + photo + " --size 4 --quality-mode 0 --spin --frames 5 --frame 2", dir);
}

TEST(CliRegions, RegionsMustBeWholePixelsInsideThePhoto) {
  const std::string dir = Scratch(), photo = WriteDots(dir);
  const struct {
    const char* roi;
    int code;
    const char* message;
  } cases[] = {
      {"0,0,1e20,10", 2, "--roi: R 1e20 is outside 0..1000000 pixels"},
      {"1.5,2.7,30.2,20.9", 2, "--roi: L '1.5' is not a whole number"},
      {"1,2,3", 2, "--roi: '1,2,3' is not L,T,R,B"},
      {"0,0,65,10", 1, "--roi 0,0,65,10 must be a non-empty rectangle inside the 64x48 photo"},
      {"5,5,5,9", 1, "must be a non-empty rectangle"},
  };
  for (const char* command : {"bokeh", "glow", "light-rays", "sparkle"}) {
    for (const auto& c : cases) {
      const CliResult r = RunCli(std::string(command) + " " + photo + " --roi " + c.roi + " -o " + dir + "/x.png");
      EXPECT_EQ(r.exit_code, c.code) << command << " " << c.roi;
      EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
    }
  }
}
