#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SheetLayout.h"
#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

TEST(CliGlow, BlackGlowKeepsThePhotoAndTheDefaultBlendIsNamed) {
  const std::string dir = Scratch();
  const Image photo = DotsPhoto(64, 48);
  const std::string in = WriteImage(dir, "photo.png", photo);
  CliResult r = RunCli("glow " + in + " --brightness 0 --blend addition -o " + dir + "/black.png");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_EQ(ReadImage(dir + "/black.png").pixels, photo.pixels);

  r = RunCli("glow " + in + " --intensity 0.8 --radius 4 -o " + dir + "/glow.png");
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
