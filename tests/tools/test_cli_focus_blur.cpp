#include <gtest/gtest.h>

#include <random>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

// A sharp red subject on the left (guide 200) beside a noisy blue
// background on the right (guide 0).
void WriteSubjectScene(const std::string& dir, int w, int h) {
  Image photo(w, h, 4), guide(w, h, 1);
  std::mt19937 rng(5);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = photo.at(x, y);
      const bool subject = x < w / 2;
      p[0] = subject ? 0 : static_cast<uint8_t>(150 + rng() % 100);
      p[1] = static_cast<uint8_t>(rng() % 50);
      p[2] = subject ? 240 : 0;
      p[3] = 255;
      *guide.at(x, y) = subject ? 200 : 0;
    }
  WriteImage(dir, "photo.png", photo);
  WriteImage(dir, "depth.png", guide);
}

}  // namespace

TEST(CliFocusBlur, BlursTheBackgroundAndKeepsTheSubject) {
  const std::string dir = Scratch();
  const int w = 64, h = 48;
  WriteSubjectScene(dir, w, h);
  const CliResult r = RunCli("focus-blur " + dir + "/photo.png --guide " + dir +
                             "/depth.png --focus 200 --range 12 --level 100 -o " + dir + "/out.png");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("wrote"), std::string::npos);
  const Image photo = ReadImage(dir + "/photo.png"), out = ReadImage(dir + "/out.png");
  ASSERT_EQ(out.width, w);
  ASSERT_EQ(out.height, h);
  int changed = 0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const uint8_t* a = photo.at(x, y);
      const uint8_t* b = out.at(x, y);
      if (x < w / 2) {
        for (int c = 0; c < 4; ++c) ASSERT_EQ(a[c], b[c]) << "subject changed at " << x << "," << y;
      } else {
        ASSERT_EQ(b[2], 0) << "red bled into the background at " << x << "," << y;
        changed += a[0] != b[0];
      }
    }
  EXPECT_GT(changed, w * h / 4) << "the background was not blurred";
}

TEST(CliFocusBlur, WithoutAGuideTheCentreStaysSharpAndJpegIsWritten) {
  const std::string dir = Scratch();
  WriteSubjectScene(dir, 81, 61);
  const CliResult r = RunCli("focus-blur " + dir + "/photo.png --level 100 --quality 95 -o " + dir + "/out.jpg");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  EXPECT_NE(r.output.find("radial"), std::string::npos);
  const Image out = ReadImage(dir + "/out.jpg");
  EXPECT_EQ(out.width, 81);
  EXPECT_EQ(out.height, 61);
  // Replacing an earlier output (not the input) is allowed.
  EXPECT_EQ(RunCli("focus-blur " + dir + "/photo.png -o " + dir + "/out.jpg").exit_code, 0);
}
