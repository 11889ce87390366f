#include <gtest/gtest.h>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

// The scene's mask as the guide: 255 on the subject square, 0 around it.
TEST(CliFocusBlur, BlursTheBackgroundAndKeepsTheSubject) {
  const Scene s;
  const CliResult r =
      RunCli("focus-blur " + s.photo + " --guide " + s.mask + " --focus 255 --range 12 --level 100 -o " + s.dir + "/out.png");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("wrote"), std::string::npos);
  const Image photo = ReadImage(s.photo), out = ReadImage(s.dir + "/out.png");
  ASSERT_EQ(out.width, photo.width);
  ASSERT_EQ(out.height, photo.height);
  int changed = 0;
  for (int y = 0; y < photo.height; ++y)
    for (int x = 0; x < photo.width; ++x) {
      const uint8_t* a = photo.at(x, y);
      const uint8_t* b = out.at(x, y);
      if (x >= 16 && x < 32 && y >= 8 && y < 24) {
        for (int c = 0; c < 4; ++c) ASSERT_EQ(a[c], b[c]) << "subject changed at " << x << "," << y;
      } else {
        changed += a[0] != b[0];
      }
    }
  EXPECT_GT(changed, photo.width * photo.height / 4) << "the background was not blurred";
}

TEST(CliFocusBlur, WithoutAGuideTheCentreStaysSharpAndJpegIsWritten) {
  const std::string dir = Scratch();
  WriteImage(dir, "photo.png", NoisePhoto(81, 61, 5));
  const CliResult r = RunCli("focus-blur " + dir + "/photo.png --level 100 --quality 95 -o " + dir + "/out.jpg");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("radial"), std::string::npos);
  const Image out = ReadImage(dir + "/out.jpg");
  EXPECT_EQ(out.width, 81);
  EXPECT_EQ(out.height, 61);
  // Replacing an earlier output (not the input) is allowed.
  EXPECT_EQ(RunCli("focus-blur " + dir + "/photo.png -o " + dir + "/out.jpg").exit_code, 0);
}
