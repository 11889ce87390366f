#include <gtest/gtest.h>

#include <map>

#include "SheetLayout.h"
#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;

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

}  // namespace
