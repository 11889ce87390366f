#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

namespace {

TEST(CliDisperse, WritesFramesThatStartFromThePhotoAndLoops) {
  const Scene f;
  const Image photo = ReadImage(f.photo);
  const CliResult r =
      RunCli("disperse " + f.photo + " --mask " + f.mask + " --frames 6 --size 1 --density 1 -o " + f.dir + "/frames");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  const Image first = ReadImage(f.dir + "/frames/frame_0000.png");
  EXPECT_EQ(first.pixels, photo.pixels);
  const Image mid = ReadImage(f.dir + "/frames/frame_0003.png");
  EXPECT_NE(mid.pixels, photo.pixels);

  // The loop goes back the way it came: its last frame is its second.
  ASSERT_EQ(RunCli("disperse " + f.photo + " --mask " + f.mask + " --frames 6 --loop -o " + f.dir + "/loop").exit_code,
            0);
  EXPECT_EQ(ReadImage(f.dir + "/loop/frame_0005.png").pixels, ReadImage(f.dir + "/loop/frame_0001.png").pixels);
  // A single frame is still a clip: one PNG in the folder, the photo itself.
  ASSERT_EQ(RunCli("disperse " + f.photo + " --mask " + f.mask + " --frames 1 -q -o " + f.dir + "/one").exit_code, 0);
  EXPECT_EQ(ReadImage(f.dir + "/one/frame_0000.png").pixels, photo.pixels);
  EXPECT_FALSE(std::filesystem::exists(f.dir + "/one/frame_0001.png"));
}

TEST(CliDisperse, NeedsAMask) {
  const Scene f;
  ExpectFailure("disperse " + f.photo + " -o " + f.dir + "/o.webp", "--mask is required", f.dir + "/o.webp", 2);
}

}  // namespace
