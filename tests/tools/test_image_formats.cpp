// The formats the tool claims to read and write, with fixtures made here by
// libvips: orientation, colour profiles, bit depths, palettes, CMYK, alpha.
#include <gtest/gtest.h>
#include <vips/vips8>

#include <filesystem>

#include "tools/ToolTestSupport.h"

using namespace KorvaneTool;
using namespace KorvaneToolTest;
using vips::VImage;

namespace {

// A 48 x 32 sRGB picture: red left half, blue right half, a green top-left
// corner block that shows which way is up.
VImage Picture() {
  StartImageLibrary();
  VImage x = VImage::xyz(48, 32);
  VImage col = x[0], row = x[1];
  VImage left = col < 24, corner = (col < 8) & (row < 8);
  VImage r = left.ifthenelse(220, 20), g = corner.ifthenelse(230, 30), b = left.ifthenelse(20, 210);
  VImage rgb = r.bandjoin(g).bandjoin(b).cast(VIPS_FORMAT_UCHAR);
  return rgb.copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
}

std::string Save(const VImage& img, const std::string& path, vips::VOption* options = nullptr) {
  img.write_to_file(path.c_str(), options);
  return path;
}

// Channel c (0 B, 1 G, 2 R) at (x, y).
int At(const Image& img, int x, int y, int c) { return img.at(x, y)[c]; }

void ExpectPicture(const Image& img, int tolerance, const std::string& what) {
  ASSERT_EQ(img.width, 48) << what;
  ASSERT_EQ(img.height, 32) << what;
  EXPECT_NEAR(At(img, 36, 20, 2), 20, tolerance) << what;   // right half: blue
  EXPECT_NEAR(At(img, 36, 20, 0), 210, tolerance) << what;
  EXPECT_NEAR(At(img, 14, 20, 2), 220, tolerance) << what;  // left half: red
  EXPECT_NEAR(At(img, 3, 3, 1), 230, tolerance) << what;    // the corner, top left
  EXPECT_EQ(At(img, 20, 20, 3), 255) << what;
}

int Bands(const std::string& path) { return VImage::new_from_file(path.c_str()).bands(); }

bool HasProfile(const std::string& path) {
  return VImage::new_from_file(path.c_str()).get_typeof(VIPS_META_ICC_NAME) != 0;
}

}  // namespace

TEST(ImageFormats, EveryClaimedFormatReadsAsTheSamePicture) {
  const std::string dir = Scratch();
  const VImage pic = Picture();
  const struct {
    std::string name;
    VImage img;
    vips::VOption* options;
    int tolerance;
  } cases[] = {
      {"plain.jpg", pic, VImage::option()->set("Q", 95), 12},
      {"plain.png", pic, nullptr, 0},
      {"sixteen.png", (pic.cast(VIPS_FORMAT_USHORT) * 257).cast(VIPS_FORMAT_USHORT)
                          .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_RGB16)), nullptr, 1},
      {"palette.png", pic, VImage::option()->set("palette", true), 4},
      {"lossless.webp", pic, VImage::option()->set("lossless", true), 0},
      {"still.gif", pic, VImage::option()->set("dither", 0.0), 8},
      {"lossless.jxl", pic, VImage::option()->set("lossless", true), 1},
      {"still.avif", pic, VImage::option()->set("Q", 90)->set("compression", VIPS_FOREIGN_HEIF_COMPRESSION_AV1), 24},
      {"deflate.tif", pic, VImage::option()->set("compression", VIPS_FOREIGN_TIFF_COMPRESSION_DEFLATE), 0},
      // The saturated blue lies outside the CMYK gamut; it comes back duller.
      {"cmyk.jpg", pic.icc_transform("cmyk", VImage::option()->set("input_profile", "srgb")),
       VImage::option()->set("Q", 98), 80},
  };
  for (const auto& c : cases) {
    Image img;
    std::string err;
    ASSERT_TRUE(LoadImage(Save(c.img, dir + "/" + c.name, c.options), img, err)) << c.name << ": " << err;
    ExpectPicture(img, c.tolerance, c.name);
  }
  // A gray JPEG: every channel alike.
  Image gray;
  std::string err;
  ASSERT_TRUE(LoadImage(Save(pic.colourspace(VIPS_INTERPRETATION_B_W), dir + "/gray.jpg"), gray, err)) << err;
  EXPECT_EQ(At(gray, 30, 20, 0), At(gray, 30, 20, 2));
  EXPECT_EQ(At(gray, 30, 20, 1), At(gray, 30, 20, 2));
}

TEST(ImageFormats, ExifOrientationTurnsThePhotoUprightAndIsNotAppliedTwice) {
  const std::string dir = Scratch();
  // Stored turned a quarter left with orientation 6 ("turn right to view"),
  // as phones write portrait photos.
  VImage stored = Picture().rot270().copy();
  stored.set(VIPS_META_ORIENTATION, 6);
  Image img;
  std::string err;
  ASSERT_TRUE(LoadImage(Save(stored, dir + "/phone.jpg", VImage::option()->set("Q", 95)), img, err)) << err;
  ExpectPicture(img, 12, "orientation 6");
  // What the tool writes is upright with orientation 1 (or none), so every viewer
  // and a second read agree.
  const CliResult r = RunCli("glitch " + dir + "/phone.jpg --shift-x 0 -o " + dir + "/out.jpg");
  ASSERT_EQ(r.exit_code, 0) << r.output;
  const VImage out = VImage::new_from_file((dir + "/out.jpg").c_str());
  EXPECT_EQ(out.width(), 48);
  EXPECT_NE(out.get_typeof(VIPS_META_EXIF_NAME), 0u) << "EXIF kept";
  EXPECT_TRUE(out.get_typeof(VIPS_META_ORIENTATION) == 0 || out.get_int(VIPS_META_ORIENTATION) == 1);
  ExpectPicture(ReadImage(dir + "/out.jpg"), 14, "written");
  // An animated WebP keeps the EXIF too, upright as well.
  ASSERT_EQ(RunCli("bokeh " + dir + "/phone.jpg --amount 0 --frames 2 -q -o " + dir + "/loop.webp").exit_code, 0);
  const VImage loop = VImage::new_from_file((dir + "/loop.webp").c_str());
  EXPECT_NE(loop.get_typeof(VIPS_META_EXIF_NAME), 0u) << "EXIF kept in the loop";
  EXPECT_TRUE(loop.get_typeof(VIPS_META_ORIENTATION) == 0 || loop.get_int(VIPS_META_ORIENTATION) == 1);
  EXPECT_EQ(loop.width(), 48);
}

TEST(ImageFormats, ProfilesAreConvertedToSrgbAndKeptUnlessStripped) {
  const std::string dir = Scratch();
  // The picture's colours stored in Display P3: other numbers, the same colours.
  const VImage p3 = Picture().icc_transform("p3", VImage::option()->set("input_profile", "srgb"));
  Save(p3, dir + "/p3.png");
  ASSERT_TRUE(HasProfile(dir + "/p3.png"));
  ExpectPicture(ReadImage(dir + "/p3.png"), 3, "P3 read as sRGB");

  ASSERT_EQ(RunCli("glitch " + dir + "/p3.png --shift-x 0 -o " + dir + "/kept.png").exit_code, 0);
  EXPECT_TRUE(HasProfile(dir + "/kept.png"));
  ASSERT_EQ(RunCli("glitch " + dir + "/p3.png --shift-x 0 --strip -o " + dir + "/bare.png").exit_code, 0);
  EXPECT_FALSE(HasProfile(dir + "/bare.png"));
  ExpectPicture(ReadImage(dir + "/bare.png"), 3, "stripped");
}

TEST(ImageFormats, OpaqueResultsHaveNoAlphaAndTransparentOnesKeepIt) {
  const std::string dir = Scratch();
  Save(Picture(), dir + "/opaque.png");
  ASSERT_EQ(RunCli("glitch " + dir + "/opaque.png -o " + dir + "/o.png").exit_code, 0);
  EXPECT_EQ(Bands(dir + "/o.png"), 3);
  Save(Picture().bandjoin_const({128}), dir + "/clear.png");
  ASSERT_EQ(RunCli("glitch " + dir + "/clear.png -o " + dir + "/c.png").exit_code, 0);
  EXPECT_EQ(Bands(dir + "/c.png"), 4);
  // Every writable still format round-trips through the tool.
  for (const char* ext : {"jpg", "png", "webp", "tif"}) {
    const std::string out = dir + "/o." + ext;
    ASSERT_EQ(RunCli("glitch " + dir + "/opaque.png --shift-x 0 --quality 98 -o " + out).exit_code, 0) << ext;
    ExpectPicture(ReadImage(out), 14, ext);
  }
}

TEST(ImageFormats, JpegChromaIsFullForGlitchAndChosenByOption) {
  const std::string dir = Scratch();
  Save(Picture(), dir + "/p.png");
  // A one-pixel-wide colour line survives 4:4:4 and is smeared by 4:2:0.
  ASSERT_EQ(RunCli("glitch " + dir + "/p.png --shift-x 2 -o " + dir + "/full.jpg").exit_code, 0);
  ASSERT_EQ(RunCli("glitch " + dir + "/p.png --shift-x 2 --chroma 420 -o " + dir + "/half.jpg").exit_code, 0);
  const VImage full = VImage::new_from_file((dir + "/full.jpg").c_str());
  ASSERT_NE(full.get_typeof("jpeg-chroma-subsample"), 0u);
  EXPECT_STREQ(full.get_string("jpeg-chroma-subsample"), "4:4:4");
  EXPECT_STREQ(VImage::new_from_file((dir + "/half.jpg").c_str()).get_string("jpeg-chroma-subsample"), "4:2:0");
}

TEST(ImageFormats, StandardInputAndOutputRoundTrip) {
  const std::string dir = Scratch();
  Save(Picture(), dir + "/p.png");
  // The image alone on stdout; the news on stderr.
  const auto pipe = [&](const std::string& args, const std::string& out) {
    const std::string cmd = std::string("\"") + KORVANE_CLI + "\" glitch - --shift-x 0 -o - " + args + " < " + dir +
                            "/p.png > " + dir + "/" + out + " 2> " + dir + "/news.txt";
    const int status = std::system(cmd.c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << cmd;
    return ReadAll(dir + "/news.txt");
  };
  EXPECT_NE(pipe("--format png", "piped.png").find("wrote standard output"), std::string::npos);
  ExpectPicture(ReadImage(dir + "/piped.png"), 0, "piped");
  EXPECT_EQ(pipe("--format webp --quiet", "piped.webp"), "");
  ExpectPicture(ReadImage(dir + "/piped.webp"), 20, "piped webp");
}
